// SPDX-License-Identifier: MIT
#ifndef FUZZING_H
#define FUZZING_H

#include "networkswitchworker.h"

#include <QtCore/QDebug>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

/** What the fuzzers share. Each is one source, of the name of what it throws bytes at. */
namespace Fuzzing {

struct Line
{
    QtMsgType type;
    QString text;

    bool operator==(const Line &other) const { return type == other.type && text == other.text; }
};

/** The library's lines since the last call. */
QVector<Line> takeLog();

/** Ends the process, with what was found in place of what had to be, unless both are equal. */
void requireEqual(const char *property, const QString &found, const QString &expected);
void require(const char *property, bool holds);
void requireEqual(const char *property, const QVector<Line> &found, const QVector<Line> &expected);

/**
 * Whether it ends for lack of memory: a value of an INI file in Qt's binary form can ask for any
 * amount, and Qt throws std::bad_alloc then, which ends an application. The limit is the
 * sanitizer's, see script/fuzz.
 */
bool runsOutOfMemory(const std::function<void()> &action);

/**
 * Stands in for what the library's commands print: null for a command that cannot be started. The
 * streams end with the bytes.
 */
using Answer = std::function<const std::string *(const char *command)>;
void setAnswer(const Answer &answer);

/** A worker whose watcher does not listen, made by the first call. */
NetworkSwitchWorker &worker();

/** What the processor calls itself; "x86_64" at first. */
void setArchitecture(const QString &name);

/** Replaces the file, so that settings are read anew. */
void writeFile(const QString &path, const std::string &content);

std::string readFile(const QString &path);

/** Takes numbers and texts off the front of the bytes. */
class Bytes
{
public:
    Bytes(const uint8_t *data, std::size_t size)
        : m_data(reinterpret_cast<const char *>(data))
        , m_size(size)
    {
    }

    unsigned byte();
    /** Up to the next 0xFF, or at most to the end. */
    std::string text();
    std::string rest();

private:
    const char *m_data;
    std::size_t m_size;
};

} // namespace Fuzzing

#endif
