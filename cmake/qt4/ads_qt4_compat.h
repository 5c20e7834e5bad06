// Force-included into the tools and tests (never the driver) of the Qt 4.8 build: Qt 4 has
// no QStringLiteral, and a QString made from the same UTF-8 literal at run time is the same
// value. Includes nothing, so it is harmless in sources that do not use Qt at all.
#ifndef ADS_QT4_COMPAT_H
#define ADS_QT4_COMPAT_H
#ifndef QStringLiteral
#define QStringLiteral(str) QString::fromUtf8(str)
#endif
#endif
