// SPDX-License-Identifier: MIT
#include "configuration.h"

#include "../../worker/switchsettings_p.h"
#include "checks.h"
#include "output.h"
#include "text.h"
#include "values.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLockFile>
#include <QRegularExpression>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

const SwitchSettings::NetworkKeys &keysOf(int network)
{
    return network == 0 ? SwitchSettings::firstKeys : SwitchSettings::secondKeys;
}

NetworkSettings readNetwork(const IniFile &file, const SwitchSettings::NetworkKeys &keys)
{
    return { file.text(keys.serverIp),        file.text(keys.serverPort),
             file.flag(keys.isAutomatically), file.text(keys.localIp),
             file.text(keys.localMask),       file.text(keys.localGateWay),
             file.text(keys.preferredDns),    file.text(keys.spareDns) };
}

QString systemError(const QString &what)
{
    return QStringLiteral("%1: %2").arg(what, Text::ofError(errno));
}

// Gives the file behind the descriptor to the owner, unless it is his already. A group that an
// ordinary user is not in cannot be kept: his own takes its place if that changes nobody's rights,
// as the file gives its group the same as everybody.
bool give(int fd, const struct stat &owner)
{
    struct stat state = {};
    if (fstat(fd, &state) != 0)
        return false;
    if (state.st_uid == owner.st_uid && state.st_gid == owner.st_gid)
        return true;
    if (fchown(fd, owner.st_uid, owner.st_gid) == 0)
        return true;
    constexpr int groupShift = 3;
    const bool sameRights = (owner.st_mode & S_IRWXG) >> groupShift == (owner.st_mode & S_IRWXO);
    return state.st_uid == owner.st_uid && sameRights;
}

// What is at the path goes to the owner of the file that it replaces, and survives a power cut from
// here on. What is new goes to the folder's owner if root has made it: the application may be
// another user's. Returns what went wrong, or nothing.
QString settle(const QString &path, const QString &replaced)
{
    const int fd = open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    struct stat owner = {};
    const bool exists = stat(QFile::encodeName(replaced).constData(), &owner) == 0;
    const QByteArray folder = QFile::encodeName(QFileInfo(replaced).path());
    const bool isKnown = fd >= 0 && (exists || stat(folder.constData(), &owner) == 0);
    QString error;
    if (isKnown && (exists || geteuid() == 0) && !give(fd, owner)) {
        error = systemError(owner.st_uid == geteuid() ? QStringLiteral("its group cannot be kept")
                                                      : QStringLiteral("its owner cannot be kept"));
        error += QStringLiteral("; run it as root, or ") + Check::chown(replaced);
    } else if (!isKnown || fsync(fd) != 0) {
        error = systemError(path);
    }
    if (fd >= 0)
        close(fd);
    return error;
}

// Makes the folder, and those above it that are missing; root's go to the owner of the one above.
bool makeFolder(const QString &path)
{
    if (QFileInfo(path).isDir())
        return true;
    const QString above = QFileInfo(path).path();
    if (!makeFolder(above) || !QDir().mkdir(path))
        return false;
    struct stat owner = {};
    if (geteuid() != 0
        || (stat(QFile::encodeName(above).constData(), &owner) == 0
            && lchown(QFile::encodeName(path).constData(), owner.st_uid, owner.st_gid) == 0))
        return true;
    QDir().rmdir(path);
    return false;
}

// What a run that was killed has left beside the file.
void removeLeftovers(const QString &copy)
{
    QFile::remove(copy);
    QFile::remove(copy + QStringLiteral(".lock"));
    // That of QSettings has six letters behind its name.
    static const QRegularExpression letters(QStringLiteral("^\\.[A-Za-z]{6}$"));
    QDir folder = QFileInfo(copy).dir();
    const QString start = QFileInfo(copy).fileName();
    for (const QString &name : folder.entryList(QDir::Files | QDir::Hidden)) {
        if (name.startsWith(start) && letters.match(name.mid(start.size())).hasMatch())
            folder.remove(name);
    }
}

// Makes the copy, of nothing if there is no file yet. Returns what went wrong, or nothing.
QString copyTo(const QString &copyPath, const QString &path)
{
    QFile original(path);
    const bool exists = original.exists();
    if (exists && !original.open(QIODevice::ReadOnly))
        return original.errorString();
    // A new one: whoever else may write to the folder shall not lead root elsewhere by a link.
    const int fd = open(QFile::encodeName(copyPath).constData(),
                        O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    QFile copy;
    if (fd < 0 || !copy.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle))
        return systemError(copyPath);
    if (exists && !copy.setPermissions(original.permissions()))
        return copy.errorString();
    const QByteArray bytes = exists ? original.readAll() : QByteArray();
    if (copy.write(bytes) != bytes.size() || !copy.flush())
        return copy.errorString();
    return QString();
}

QString applyTo(const QString &path, const Changes &changes)
{
    QFile raw(path);
    const bool isUtf8 = raw.open(QIODevice::ReadOnly) && Text::isUtf8(raw.readAll());
    raw.close();
    IniFile file(path);
    (void)file.allKeys(); // until then some of it is not taken apart
    if (file.status() != QSettings::NoError)
        return QStringLiteral("it is no INI file throughout; hoplanectl check tells what helps");
    for (const RawValue &change : changes.values())
        file.setValue(change.key, change.value);
    // All values are written anew, those of other keys too.
    for (const QString &key : file.allKeys()) {
        const QString value = file.value(key).toStringList().join(QString());
        if (!Values::isKept(value))
            return QStringLiteral("it would not keep a character of %1, such as an emoji")
                    .arg(Text::visible(key));
        if (!isUtf8 && value.contains(QChar::ReplacementCharacter))
            return QStringLiteral("it would not keep the bytes of %1 that are no UTF-8")
                    .arg(Text::visible(key));
    }
    file.sync();
    return file.status() == QSettings::NoError ? QString()
                                               : QStringLiteral("the new file cannot be written");
}

// Why the file may not be replaced, with what helps; nothing if it may, or is not there yet.
QString isProtected(const QString &path)
{
    struct stat state = {};
    const QByteArray name = QFile::encodeName(path);
    if (stat(name.constData(), &state) != 0
        || faccessat(AT_FDCWD, name.constData(), W_OK, AT_EACCESS) == 0)
        return QString();
    return state.st_uid == geteuid()
            ? QStringLiteral("it is write-protected; chmod u+w %1").arg(Check::quoted(path))
            : QStringLiteral("the user %1 may not write it; run it as root, or %2")
                      .arg(Check::user(), Check::chown(path));
}

// The steps of replacing the file, behind its lock.
QString replace(const QString &path, const Changes &changes)
{
    const QString copy = path + QStringLiteral(".new");
    removeLeftovers(copy);
    QString error = isProtected(path);
    if (error.isEmpty())
        error = copyTo(copy, path);
    if (error.isEmpty())
        error = applyTo(copy, changes);
    if (error.isEmpty())
        error = settle(copy, path);
    if (error.isEmpty()
        && std::rename(QFile::encodeName(copy).constData(), QFile::encodeName(path).constData()))
        error = systemError(path);
    if (!error.isEmpty())
        removeLeftovers(copy);
    return error;
}

// So that the new name survives a power cut. The file is replaced already.
void synchroniseFolder(const QString &path)
{
    const QString folder = QFileInfo(path).path();
    const int fd = open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || fsync(fd) != 0)
        Output::message(QStringLiteral("%1 is written, but a power cut may still undo that: %2")
                                .arg(path, systemError(folder)));
    if (fd >= 0)
        close(fd);
}

// What the link leads to at last, also if nothing is there yet; empty if it goes round in circles.
QString behindLinks(QString path)
{
    constexpr int mostLinks = 40; // as the kernel
    for (int count = 0; count <= mostLinks; ++count) {
        const QFileInfo info(path);
        if (!info.isSymLink())
            return path;
        path = info.symLinkTarget();
    }
    return QString();
}

// Whether the bytes are an INI file throughout. Who reads a file again of the same name, size and
// time is told of no error any more; so each time there is one of a time of its own, in memory.
// Nothing if there is no memory for it.
std::optional<bool> isIni(const QByteArray &bytes)
{
    static time_t count = 0;
    const timespec time = { ++count, 0 };
    const timespec times[] = { time, time };
    QFile file;
    const int fd = memfd_create("switch.ini", MFD_CLOEXEC);
    if (fd < 0 || !file.open(fd, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle)
        || file.write(bytes) != bytes.size() || !file.flush() || futimens(fd, times) != 0)
        return std::nullopt;
    const IniFile ini(QStringLiteral("/proc/self/fd/%1").arg(fd));
    (void)ini.allKeys();
    return ini.status() == QSettings::NoError;
}

bool isName(const QString &name)
{
    return !name.isEmpty() && !name.contains(QLatin1Char('/')) && name != QLatin1String(".")
            && name != QLatin1String("..");
}

// Why the name, null if none was given, is no application's; nothing if it can be one's.
QString notChoosable(const QString &name, const QStringList &known)
{
    if (name.isNull() && known.isEmpty())
        return QStringLiteral("no application has a configuration in %1; name yours with "
                              "--app NAME")
                .arg(Configuration::folder());
    if (name.isNull())
        return QStringLiteral("several applications have a configuration; choose one with "
                              "--app NAME: %1")
                .arg(known.join(QStringLiteral(", ")));
    if (!isName(name))
        return QStringLiteral("--app \"%1\": not the name of an application; it is the name "
                              "of a folder, for example failover")
                .arg(name);
    return QString();
}

} // namespace

Settings Settings::read(const QString &path)
{
    const IniFile file(path);
    return { file.flag(SwitchSettings::enableKey),
             file.text(SwitchSettings::connectionNameKey),
             { readNetwork(file, SwitchSettings::firstKeys),
               readNetwork(file, SwitchSettings::secondKeys) } };
}

void Changes::setServer(int network, const QString &ip, const QString &port)
{
    NetworkSettings server;
    server.serverIp = ip;
    server.serverPort = port;
    m_servers[network] = server;
}

void Changes::setAddressing(int network, const NetworkSettings &addressing)
{
    m_addressings[network] = addressing;
}

void Changes::applyTo(Settings *settings) const
{
    settings->enabled = m_enabled.value_or(settings->enabled);
    settings->connection = m_connection.value_or(settings->connection);
    for (int index : { 0, 1 }) {
        NetworkSettings &network = settings->networks[index];
        const NetworkSettings server = m_servers[index].value_or(network);
        network = m_addressings[index].value_or(network);
        network.serverIp = server.serverIp;
        network.serverPort = server.serverPort;
    }
}

QVector<RawValue> Changes::values() const
{
    QVector<RawValue> values;
    if (m_enabled)
        values.append({ SwitchSettings::enableKey, *m_enabled });
    if (m_connection)
        values.append({ SwitchSettings::connectionNameKey, *m_connection });
    for (int index : { 0, 1 }) {
        const SwitchSettings::NetworkKeys &keys = keysOf(index);
        if (const auto &server = m_servers[index])
            values += { { keys.serverIp, server->serverIp },
                        { keys.serverPort, server->serverPort } };
        // Meant: true is static, against the key's name.
        if (const auto &addressing = m_addressings[index])
            values += { { keys.isAutomatically, addressing->isStatic },
                        { keys.localIp, addressing->ip },
                        { keys.localMask, addressing->mask },
                        { keys.localGateWay, addressing->gateway },
                        { keys.preferredDns, addressing->dns1 },
                        { keys.spareDns, addressing->dns2 } };
    }
    return values;
}

namespace Configuration {

QString path()
{
    return SwitchSettings::path();
}

QString folder()
{
    // Of any application; where that is, only one place knows.
    const QString kept = QCoreApplication::applicationName();
    QCoreApplication::setApplicationName(QStringLiteral("any"));
    QDir folder = QFileInfo(path()).dir();
    QCoreApplication::setApplicationName(kept);
    folder.setPath(QDir::cleanPath(folder.absoluteFilePath(QStringLiteral(".."))));
    return folder.path();
}

QStringList applications()
{
    const QString fileName = QFileInfo(path()).fileName();
    QStringList found;
    const QDir folder(Configuration::folder());
    for (const QString &name : folder.entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot)) {
        if (QFileInfo(folder.filePath(name + QLatin1Char('/') + fileName)).isFile())
            found.append(name);
    }
    return found;
}

bool choose(const QString &name, bool mayBeNew, QString *reason)
{
    const QStringList known = applications();
    const QString chosen = name.isNull() && known.size() == 1 ? known.first() : name;
    const QString wrong = notChoosable(chosen, known);
    if (wrong.isEmpty()) {
        QCoreApplication::setApplicationName(chosen);
        if (mayBeNew || QFileInfo::exists(path()))
            return true;
    }
    const QString list = known.join(QStringLiteral(", "));
    const QString text = !wrong.isEmpty()
            ? wrong
            : QStringLiteral("the application \"%1\" has no configuration: there is no %2%3")
                      .arg(name, path(),
                           known.isEmpty() ? QString()
                                           : QStringLiteral("; these have one: ") + list);
    Output::message(text);
    if (reason)
        *reason = text;
    return false;
}

QString unreadable(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists())
        return info.isSymLink() ? QStringLiteral("%1 is a link that leads nowhere").arg(path)
                                : QStringLiteral("there is no %1").arg(path);
    if (!info.isFile())
        return QStringLiteral("%1 is no regular file").arg(path);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("%1 cannot be read: %2").arg(path, file.errorString());
    return QString();
}

QString notIni(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return unreadable(path);
    const std::optional<bool> is = isIni(file.readAll());
    if (!is)
        return QStringLiteral("%1 cannot be looked through: %2").arg(path, Text::ofError(errno));
    return *is ? QString() : QStringLiteral("%1 is no INI file throughout").arg(path);
}

QString unusable(const QString &path)
{
    const QString reason = unreadable(path);
    return reason.isEmpty() ? notIni(path) : reason;
}

QVector<RawValue> rawValues(const QString &path)
{
    const IniFile file(path);
    QVector<RawValue> values;
    const auto add = [&](QLatin1String key) { values.append({ key, file.value(key) }); };
    add(SwitchSettings::enableKey);
    add(SwitchSettings::connectionNameKey);
    for (int network : { 0, 1 }) {
        const SwitchSettings::NetworkKeys &keys = keysOf(network);
        for (const QLatin1String key :
             { keys.serverIp, keys.serverPort, keys.isAutomatically, keys.localIp, keys.localMask,
               keys.localGateWay, keys.preferredDns, keys.spareDns })
            add(key);
    }
    return values;
}

QVector<Difference> differences(const QString &path, const Changes &changes)
{
    const IniFile file(path);
    QVector<Difference> found;
    for (const RawValue &change : changes.values()) {
        const QVariant old = file.value(change.key);
        if (!old.isValid() || rawText(old) != rawText(change.value))
            found.append({ change.key, old, change.value });
    }
    return found;
}

QString save(const QString &path, const Changes &changes, Settings *before)
{
    // A link stays, and what it leads to is replaced.
    const QString target = behindLinks(path);
    if (target.isEmpty())
        return QStringLiteral("%1 is a link that leads to itself").arg(path);
    const QString targetFolder = QFileInfo(target).path();
    if (!makeFolder(targetFolder))
        return QStringLiteral("the folder %1 cannot be made").arg(targetFolder);
    // The lock that the library's own writers take.
    QLockFile lock(target + QStringLiteral(".lock"));
    // A writer takes milliseconds. One that was killed leaves its lock, which counts until it is
    // old if it does not say whose it is.
    constexpr int oldMs = 10000;
    lock.setStaleLockTime(oldMs);
    if (!lock.tryLock(oldMs + 2000)) {
        return lock.error() == QLockFile::LockFailedError
                ? QStringLiteral("another program is writing %1").arg(target)
                : QStringLiteral("no file can be made in %1").arg(targetFolder);
    }
    *before = Settings::read(path);
    const QString error = replace(target, changes);
    if (!error.isEmpty())
        return QStringLiteral("%1: %2").arg(target, error);
    synchroniseFolder(target);
    return QString();
}

QString rawText(const QVariant &value)
{
    if (value.type() == QVariant::StringList)
        return value.toStringList().join(QStringLiteral(", "));
    return value.toString();
}

} // namespace Configuration
