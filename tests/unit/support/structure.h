// SPDX-License-Identifier: MIT
#ifndef STRUCTURE_H
#define STRUCTURE_H

#include <QtCore/QMetaMethod>
#include <QtCore/QObject>
#include <QtCore/QStringList>

#include <cstring>
#include <iterator>

/** What a class is made of, as far as an object or its meta-object tells. */
namespace Structure {

/** The class's own methods, as "signal public void name(Type argument, ...)". */
inline QStringList methods(const QMetaObject &meta)
{
    static const char *const kinds[] = { "method", "signal", "slot", "constructor" };
    static const char *const access[] = { "private", "protected", "public" };
    QStringList list;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        QStringList arguments;
        for (int j = 0; j < method.parameterCount(); ++j)
            arguments.append(QString::fromLatin1(method.parameterTypes().at(j) + ' '
                                                 + method.parameterNames().at(j)));
        list.append(QStringLiteral("%1 %2 %3 %4(%5)")
                            .arg(QLatin1String(kinds[method.methodType()]),
                                 QLatin1String(access[method.access()]),
                                 QLatin1String(method.typeName()), QLatin1String(method.name()),
                                 arguments.join(QLatin1String(", "))));
    }
    return list;
}

/** How many members of the meta-object are no methods. */
inline int otherMembers(const QMetaObject &meta)
{
    return meta.propertyCount() - meta.propertyOffset() + meta.enumeratorCount()
            - meta.enumeratorOffset() + meta.classInfoCount() - meta.classInfoOffset()
            + meta.constructorCount();
}

/** QObject's virtual functions that the object's class replaces, its meta-object's aside. */
inline QStringList overridden(const QObject &object)
{
    // The first five entries are the meta-object's three functions and the destructor's two forms.
    static const char *const names[] = { "event",           "eventFilter", "timerEvent",
                                         "childEvent",      "customEvent", "connectNotify",
                                         "disconnectNotify" };
    constexpr int first = 5;
    const QObject plain;
    void *const *plainTable = nullptr;
    void *const *table = nullptr;
    std::memcpy(&plainTable, static_cast<const void *>(&plain), sizeof plainTable);
    std::memcpy(&table, static_cast<const void *>(&object), sizeof table);
    QStringList list;
    for (int i = 0; i < int(std::size(names)); ++i) {
        if (table[first + i] != plainTable[first + i])
            list.append(QLatin1String(names[i]));
    }
    return list;
}

} // namespace Structure

#endif
