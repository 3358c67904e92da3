// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

// Pieces of what people read.
namespace Text {

// A text of unknown origin in one line of a terminal: what cannot be printed as its code.
QString visible(const QString &text);

// Whether the bytes are UTF-8 throughout.
bool isUtf8(const QByteArray &bytes);

// "1 attempt", "3 attempts"; `many` where it is not `one` with an s.
QString counted(int count, const QString &one, const QString &many = QString());

// What the system calls the error of this number, as errno has it.
QString ofError(int error);

} // namespace Text
