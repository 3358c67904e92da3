// SPDX-License-Identifier: MIT
#pragma once

#include "configuration.h"

// The configuration in words that a person understands.
namespace Describe {

// "on" or "off"
QString enabled(bool enabled);
QString connection(const QString &name);
// "192.0.2.1:9000"
QString server(const NetworkSettings &network);
// "automatic addressing (DHCP)", or the static one with all that belongs to it.
QString addressing(const NetworkSettings &network);
// Between the two, what becomes of the connection and the addressing; values that are not used do
// not count.
QStringList changes(const Settings &before, const Settings &after);

} // namespace Describe
