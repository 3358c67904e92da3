// SPDX-License-Identifier: MIT
// The items about the file itself.

#include "checks.h"

#include "../../worker/switchsettings_p.h"
#include "devicesettings.h"
#include "text.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHash>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace {

QString asOwner(const QString &path)
{
    return QStringLiteral("run the check as the application's user; or ") + Check::chown(path);
}

// How to make a file from the beginning.
QString everything(const Situation &situation)
{
    return situation.set(QStringLiteral("server 1 IP:PORT"))
            + QStringLiteral("; then server 2, network 1, network 2, connection and enabled");
}

// Why the library could not read the file; nothing if it can.
std::optional<Finding> unreadable(const Situation &situation)
{
    const QString &path = situation.path;
    const QString first = everything(situation);
    const QFileInfo info(path);
    if (info.isSymLink() && !info.exists())
        return Finding::fault(QStringLiteral("%1 is a link that leads nowhere").arg(path),
                              QStringLiteral("rm %1; then %2").arg(Check::quoted(path), first));
    if (!info.exists())
        return Finding::fault(QStringLiteral("there is no %1").arg(path), first);
    if (!info.isFile())
        return Finding::fault(
                QStringLiteral("%1 is no regular file").arg(path),
                QStringLiteral("mv %1 %1.old; then %2").arg(Check::quoted(path), first));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return Finding::fault(QStringLiteral("%1 cannot be read by the user %2: %3")
                                      .arg(path, Check::user(), file.errorString()),
                              asOwner(path));
    return std::nullopt;
}

// Where the file stops being one, as far as that shows.
QString badPlace(const QByteArray &bytes)
{
    QStringList places;
    const QByteArray mark = "\xEF\xBB\xBF";
    const bool isMarked = bytes.startsWith(mark);
    if (isMarked)
        places.append(QStringLiteral("it begins with a byte order mark"));
    const QList<QByteArray> lines = bytes.mid(isMarked ? mark.size() : 0).split('\n');
    for (int index = 0; index < lines.size(); ++index) {
        const QByteArray line = lines[index].trimmed();
        const bool group = line.startsWith('[') && line.contains(']');
        if (!line.isEmpty() && !line.startsWith(';') && !group && !line.contains('=')) {
            places.append(QStringLiteral("line %1 is none of an INI file").arg(index + 1));
            break;
        }
    }
    return places.isEmpty() ? QStringLiteral("it is no INI file throughout")
                            : places.join(QStringLiteral("; "));
}

// Why nothing of the file's bytes means anything, as after a power cut; nothing if some do.
std::optional<Finding> garbage(const Situation &situation, const QByteArray &bytes)
{
    const QVector<RawValue> values = Configuration::rawValues(situation.path);
    const bool isAnyThere = std::any_of(values.begin(), values.end(),
                                        [](const RawValue &raw) { return raw.value.isValid(); });
    if (isAnyThere || Configuration::notIni(situation.path).isEmpty())
        return std::nullopt;
    // Without its file the application is known by its name only.
    Situation named = situation;
    named.app = QCoreApplication::applicationName();
    return Finding::fault(
            QStringLiteral("%1: %2, it has none of the keys, and nothing can be stored")
                    .arg(situation.path, badPlace(bytes)),
            QStringLiteral("mv %1 %1.old; then %2")
                    .arg(Check::quoted(situation.path), everything(named)));
}

// The command that writes the key.
QString commandFor(const Situation &situation, const QString &key)
{
    if (key == SwitchSettings::enableKey)
        return situation.set(QStringLiteral("enabled on"));
    if (key == SwitchSettings::connectionNameKey)
        return situation.set(QStringLiteral("connection NAME"));
    const QString number = QString::number(key.startsWith(QLatin1String("First")) ? 1 : 2);
    if (key.contains(QLatin1String("Server")))
        return situation.set(QStringLiteral("server %1 IP:PORT").arg(number));
    return situation.set(
            QStringLiteral("network %1 --dhcp, or --address IP/PREFIX --gateway IP").arg(number));
}

QString commandsFor(const Situation &situation, const QStringList &keys)
{
    QStringList commands;
    for (const QString &key : keys)
        commands.append(commandFor(situation, key));
    commands.removeDuplicates();
    return commands.join(QStringLiteral("; "));
}

QString counted(const QStringList &keys)
{
    return keys.size() == 1 ? QStringLiteral("the key %1").arg(keys.first())
                            : QStringLiteral("the keys %1").arg(keys.join(QStringLiteral(", ")));
}

// The text fields of a network with automatic addressing, which the library does not look at.
bool isUnused(const Situation &situation, const QString &key)
{
    if (key.contains(QLatin1String("Server")) || key.contains(QLatin1String("Automatically")))
        return false;
    return (key.startsWith(QLatin1String("First")) && !situation.settings.networks[0].isStatic)
            || (key.startsWith(QLatin1String("Second"))
                && !situation.settings.networks[1].isStatic);
}

bool isFlag(const QString &key)
{
    return key == SwitchSettings::enableKey || key == SwitchSettings::firstKeys.isAutomatically
            || key == SwitchSettings::secondKeys.isAutomatically;
}

// Words that the library takes for true although they say something else, or nothing.
bool isOddFlag(const QString &text)
{
    static const QStringList usual = { QString(), QStringLiteral("true"), QStringLiteral("false"),
                                       QStringLiteral("1"), QStringLiteral("0") };
    return !usual.contains(text.toLower());
}

void judgeValues(const Situation &situation, const QVector<RawValue> &values, Findings *found)
{
    QStringList missing;
    for (const RawValue &raw : values) {
        const QString key = raw.key;
        const QString text = Configuration::rawText(raw.value);
        if (!raw.value.isValid())
            missing.append(key);
        else if (raw.value.type() == QVariant::StringList && !isUnused(situation, key))
            found->append(Finding::fault(
                    QStringLiteral("%1=%2: a value with a comma that is not in quotes is %3 for "
                                   "the library")
                            .arg(key, Check::shown(text),
                                 isFlag(key) ? QStringLiteral("false") : QStringLiteral("empty")),
                    commandFor(situation, key)));
        else if (isFlag(key) && isOddFlag(text))
            found->append(Finding::warning(
                    QStringLiteral("%1=%2: the library takes this for true; only 0, false and "
                                   "nothing are false")
                            .arg(key, Check::shown(text)),
                    commandFor(situation, key)));
    }
    if (!missing.isEmpty())
        found->append(Finding::warning(QStringLiteral("the library takes %1 as false or empty: not "
                                                      "in the file")
                                               .arg(counted(missing)),
                                       commandsFor(situation, missing)));
}

void judgeStrangers(const Situation &situation, const QVector<RawValue> &values, Findings *found)
{
    QStringList known;
    for (const RawValue &raw : values)
        known.append(raw.key);
    QStringList unknown;
    QStringList misplaced;
    const QSettings file(situation.path, QSettings::IniFormat);
    for (const QString &key : file.allKeys()) {
        const QString last = key.section(QLatin1Char('/'), -1);
        if (key != last && known.contains(last))
            misplaced.append(Check::shown(key));
        else if (!known.contains(key))
            unknown.append(Check::shown(key));
    }
    if (!misplaced.isEmpty())
        found->append(Finding::warning(
                QStringLiteral("%1: the library looks into the group [General] only")
                        .arg(counted(misplaced)),
                QStringLiteral("move these lines of %1 behind the line [General]")
                        .arg(situation.path)));
    if (!unknown.isEmpty())
        found->append(
                Finding::warning(QStringLiteral("the library does not know %1; a slip of the pen?")
                                         .arg(counted(unknown)),
                                 QStringLiteral("correct the names in %1, or remove these lines")
                                         .arg(situation.path)));
}

// Keys that stand there several times, of which the library takes the last one.
void judgeRepeated(const Situation &situation, const QVector<RawValue> &values, Findings *found)
{
    QFile file(situation.path);
    QHash<QString, int> counts;
    bool general = true; // as the file begins without any group
    const QByteArray bytes = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    for (const QByteArray &whole : bytes.split('\n')) {
        const QByteArray line = whole.trimmed();
        if (line.startsWith('['))
            general = line.toLower() == "[general]";
        else if (general)
            ++counts[QString::fromUtf8(line.left(line.indexOf('=')).trimmed())];
    }
    QStringList repeated;
    for (const RawValue &raw : values) {
        if (counts.value(raw.key) > 1)
            repeated.append(raw.key);
    }
    if (!repeated.isEmpty())
        found->append(Finding::warning(
                QStringLiteral("%1: several times in the file, and the library takes the last")
                        .arg(counted(repeated)),
                QStringLiteral("remove all of these lines of %1 but the last")
                        .arg(situation.path)));
}

QString nameOfUser(uid_t id)
{
    const passwd *const entry = getpwuid(id);
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(id);
}

// The owner's own group: of his name, and without anybody else.
bool isPrivateGroup(gid_t id, const QString &owner)
{
    const group *const entry = getgrgid(id);
    if (!entry || QString::fromLocal8Bit(entry->gr_name) != owner)
        return false;
    for (char **member = entry->gr_mem; *member; ++member) {
        if (QString::fromLocal8Bit(*member) != owner)
            return false;
    }
    return true;
}

// Who else may write the file, or replace what is in the folder; nothing if nobody may.
std::optional<Finding> writableByOthers(const QString &path)
{
    struct stat state = {};
    if (stat(QFile::encodeName(path).constData(), &state) != 0)
        return Finding::notJudged(QStringLiteral("%1 cannot be examined").arg(path));
    const QString consequence = QStringLiteral(", and whoever does can run commands as the "
                                               "application");
    const QString owner = nameOfUser(state.st_uid);
    if (state.st_uid != 0 && state.st_uid != geteuid())
        return Finding::fault(
                QStringLiteral("the user %1 may write %2%3").arg(owner, path, consequence),
                asOwner(path));
    // In a folder with this bit everybody may replace his own files only.
    if (S_ISDIR(state.st_mode) && (state.st_mode & S_ISVTX) != 0)
        return std::nullopt;
    if ((state.st_mode & S_IWOTH) != 0)
        return Finding::fault(QStringLiteral("everybody may write %1%2").arg(path, consequence),
                              QStringLiteral("chmod go-w %1").arg(Check::quoted(path)));
    if ((state.st_mode & S_IWGRP) != 0 && !isPrivateGroup(state.st_gid, owner)) {
        const group *const entry = getgrgid(state.st_gid);
        const QString name =
                entry ? QString::fromLocal8Bit(entry->gr_name) : QString::number(state.st_gid);
        return Finding::fault(
                QStringLiteral("the group %1 may write %2%3").arg(name, path, consequence),
                QStringLiteral("chmod g-w %1").arg(Check::quoted(path)));
    }
    return std::nullopt;
}

// Whether this user's programs may write the file, or make files in the folder.
bool isWritable(const QString &path, const struct stat &state)
{
    const int wanted = S_ISDIR(state.st_mode) ? W_OK | X_OK : W_OK;
    return faccessat(AT_FDCWD, QFile::encodeName(path).constData(), wanted, AT_EACCESS) == 0;
}

// What keeps this user from saving; nothing if nothing does. The library makes its lock beside the
// name and the new file beside what a link leads to, and wants to be allowed to write the old one.
std::optional<Finding> notPermitted(const QString &path, const QString &consequence)
{
    const QString target = QFileInfo(path).canonicalFilePath();
    for (const QString &part : { QFileInfo(path).path(), QFileInfo(target).path(), target }) {
        struct stat state = {};
        if (stat(QFile::encodeName(part).constData(), &state) != 0 || isWritable(part, state))
            continue;
        const QString error = Text::ofError(errno);
        const QString chmod = S_ISDIR(state.st_mode) ? QStringLiteral("chmod u+wx ")
                                                     : QStringLiteral("chmod u+w ");
        return Finding::fault(QStringLiteral("%1 cannot be written by the user %2: %3; %4")
                                      .arg(part, Check::user(), error, consequence),
                              state.st_uid == geteuid() ? chmod + Check::quoted(part)
                                                        : asOwner(part));
    }
    return std::nullopt;
}

// Adds the file and all folders on the way to it, also behind links, as far as they are there.
void addWay(const QString &path, QStringList *way)
{
    for (const QString &end : { path, QFileInfo(path).canonicalFilePath() }) {
        for (QString part = end; !part.isEmpty() && !way->contains(part);
             part = QFileInfo(part).path()) {
            if (QFileInfo::exists(part))
                way->append(part);
        }
    }
}

} // namespace

std::optional<Finding> Check::unwritable(const QString &folder, const QString &consequence)
{
    struct statvfs state = {};
    if (statvfs(QFile::encodeName(folder).constData(), &state) != 0)
        return std::nullopt;
    if ((state.f_flag & ST_RDONLY) != 0)
        return Finding::fault(
                QStringLiteral("%1 is on a read-only file system: %2").arg(folder, consequence),
                QStringLiteral("mount -o remount,rw $(findmnt -n -o TARGET -T %1)")
                        .arg(quoted(folder)));
    // Some file systems do not count their files.
    if (state.f_bavail == 0 || (state.f_files != 0 && state.f_favail == 0))
        return Finding::fault(QStringLiteral("%1 is on a full disk: %2").arg(folder, consequence),
                              QStringLiteral("delete what is not needed in $(findmnt -n -o TARGET "
                                             "-T %1)")
                                      .arg(quoted(folder)));
    return std::nullopt;
}

Findings Check::file(Situation &situation)
{
    if (situation.path.isEmpty())
        return { Finding::fault(
                QStringLiteral("no application has a configuration in %1")
                        .arg(Configuration::folder()),
                QStringLiteral("hoplanectl --app NAME set server 1 IP:PORT, with the "
                               "application's name; then server 2, network 1, network 2, "
                               "connection and enabled")) };
    if (const std::optional<Finding> finding = unreadable(situation))
        return { *finding };
    Findings found;
    QFile file(situation.path);
    const QByteArray bytes = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    if (const std::optional<Finding> finding = garbage(situation, bytes))
        return { *finding };
    if (!Configuration::notIni(situation.path).isEmpty())
        found.append(
                Finding::fault(QStringLiteral("%1: %2, and nothing can be stored")
                                       .arg(situation.path, badPlace(bytes)),
                               QStringLiteral("correct %1 with an editor; remarks begin with ;")
                                       .arg(situation.path)));
    situation.readable = true;
    situation.settings = Settings::read(situation.path);
    if (!Text::isUtf8(bytes))
        found.append(Finding::warning(
                QStringLiteral("%1 has bytes that are no UTF-8, which the library replaces")
                        .arg(situation.path),
                QStringLiteral("correct %1 with an editor").arg(situation.path)));
    const QString folder = QFileInfo(QFileInfo(situation.path).canonicalFilePath()).path();
    const QString lost =
            QStringLiteral("what the application saves or imports is lost, and nothing can be set");
    std::optional<Finding> obstacle = unwritable(folder, lost);
    if (!obstacle)
        obstacle = notPermitted(situation.path, lost);
    if (obstacle)
        found.append(*obstacle);
    situation.storable = !obstacle;
    if (found.isEmpty())
        found.append(Finding::good(situation.path));
    return found;
}

Findings Check::keys(Situation &situation)
{
    const QVector<RawValue> values = Configuration::rawValues(situation.path);
    Findings found;
    judgeValues(situation, values, &found);
    judgeStrangers(situation, values, &found);
    judgeRepeated(situation, values, &found);
    if (found.isEmpty())
        found.append(Finding::good(QStringLiteral("all %1 are there").arg(values.size())));
    return found;
}

Findings Check::trust(Situation &situation)
{
    Findings found;
    QStringList way;
    addWay(situation.path, &way);
    // Its values come into the file, and whoever may write its folder may make it.
    addWay(DeviceSettings::path(), &way);
    for (const QString &path : way) {
        if (const std::optional<Finding> finding = writableByOthers(path))
            found.append(*finding);
    }
    if (found.isEmpty())
        found.append(Finding::good(
                QStringLiteral("only %1 may write the file, the device's file and their folders")
                        .arg(geteuid() == 0 ? QStringLiteral("root")
                                            : QStringLiteral("root and %1").arg(user()))));
    return found;
}

Findings Check::enabled(Situation &situation)
{
    if (situation.settings.enabled)
        return { Finding::good(QStringLiteral("switching is on")) };
    return { Finding::warning(
            QStringLiteral("switching is off: the library does nothing, and signals nothing"),
            situation.set(QStringLiteral("enabled on"))) };
}
