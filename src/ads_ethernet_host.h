/*
 * ads_ethernet_host.h: what a host needs to drive the ads_ethernet plugin.
 *
 * The records the host fills or reads (KEY_ADDRESS, _RCP_VAR_PRO, FRAME_PRO with its
 * VARIABLE), the value-change callback type, the positions of the recipe request flags,
 * one function-pointer type per entry point (intf_<name>_fn for intf_<name>) and the
 * settings-string helper. It declares no driver object and no tables: the plugin is loaded
 * at run time and its entry points resolved by name (ads_ethernet_loader.h does that).
 * docs/HOST_INTEGRATION.md is the guide to every entry point.
 *
 * The records must keep exactly this field order and these types: the plugin reads and
 * writes the host's objects with this layout. A file that also includes the driver's own
 * header (ads_ethernet.h, for the driver and its tests) includes that one first; the
 * records are then taken from it.
 *
 * C++98 and the Qt API that Qt 4.8, 5 and 6 share; build the host against the same Qt
 * major version as the plugin.
 */
#ifndef ADS_ETHERNET_HOST_H
#define ADS_ETHERNET_HOST_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#ifndef ADS_ETHERNET_H

/* One request item: the variable a prepared frame serves (FRAME_PRO::var). */
struct VARIABLE {
    int kind;                 /* 4 cyclic read; the host's condition-read kind; the host's write mode */
    int keyNo;                /* station number of the item */
    QString regName;          /* a register name; "M_W" etc. for a merged block */
    int address;              /* bit number (bit registers) or byte offset */
    int length;               /* bits (bit registers) or bytes (word registers, merged blocks) */
    unsigned char data[1024]; /* bytes to write, or recipe values */
};

/* One address as the host hands it to intf_addrMerge and intf_addConditionRead. */
struct KEY_ADDRESS {
    QString hostText;  /* the host's own; carried, never read */
    int hostNumber;    /* the host's own; carried, never read */
    int rcpDataIndex;  /* recipe items: position in the recipe buffer, in 16-bit words */
    int keyNo;         /* station number; only keys with equal keyNo are merged */
    QString regName;   /* I_bit, Q_bit, M_bit, I_W, Q_W or M_W */
    QString hostText2; /* the host's own; carried, never read */
    int address;       /* bit registers: byte * 8 + bit; word registers: byte offset */
    int unitMark;      /* -1 for bit items, 0 for word items */
    int length;        /* bit registers: bits; word registers: 16-bit words */
    unsigned char data[1024];
};

/* One recipe variable, handed to intf_setRcpAddress. */
struct _RCP_VAR_PRO {
    int driverNo;     /* must equal the callback context (first field of the init string) */
    int keyNo;        /* station number */
    QString regName;  /* I_W, Q_W, M_W (or a bit register) */
    int address;      /* as in KEY_ADDRESS */
    int length;       /* as in KEY_ADDRESS: words, or bits */
    int rcpDataIndex; /* position of its values in the recipe buffer, in 16-bit words */
    int hostField;    /* the host's own; carried, never read */
};

/* One frame to send, filled by intf_getSendFrame. */
struct FRAME_PRO {
    unsigned char frame[1024]; /* the AMS/TCP frame; send the first sendLen bytes */
    int sendLen;               /* bytes to send */
    int recvLen;               /* length the reply must have (handshake: the least) */
    int dataStart;             /* data position in the reply (reads) or in frame (writes) */
    int readLen;               /* data bytes a read asks for; 0 for the handshake and writes */
    int spareField;            /* never set by the driver */
    VARIABLE var;              /* the item the frame serves */
};

/* The value-change callback: context (init string field 0, or -1 / 0 for the special
 * reports), station number, address text ("M_W", "M_bit", "-1", "RWI"), address. */
typedef int (*VALUE_CHANGE_CALLBACK)(int context, int keyNo, QString addressText, int address);

/* Positions of the recipe request flags in the host's status block. */
enum { HOST_FLAG_RECIPE_WRITE = 60115, HOST_FLAG_RECIPE_READ = 60116 };

#endif /* ADS_ETHERNET_H */

/* The entry points' types, one per exported name (intf_X has type intf_X_fn). */
typedef void (*intf_getProtocolType_fn)(int* type);
typedef QString (*intf_getVersion_fn)();
typedef void (*intf_setAddrValueChangeCallBack_fn)(VALUE_CHANGE_CALLBACK callback);
typedef int (*intf_initProperty_fn)(
    void* hostStatusBlock, void* hostArg2, void* rcpBuffer, int* mode, const char* initString, QMutex* hostMutex);
typedef void (*intf_getDriverParameter_fn)(QString& parameter);
typedef void (*intf_getDriverPropertyPage_fn)(QString& page);
typedef void (*intf_SetDriverPropertyPage_fn)(QString settings);
typedef int (*intf_getRegListByType_fn)(int type, QList<QString>& names);
typedef int (*intf_getRegDiscription_fn)(QString regName, QList<QString>& description);
typedef int (*intf_checkAddr_fn)(QString regName, QString addrText, int* address, int dataType, int count, int access);
typedef int (*intf_checkAddrValidity_fn)(QString regName, QString addrText, int* address, int count, int isWord);
typedef int (*intf_getSendFrame_fn)(FRAME_PRO* out);
typedef int (*intf_dealRcvFrame_fn)(QByteArray& reply, QString& errorText);
typedef int (*intf_getData_fn)(int keyNo, QString regName, int address, int count, unsigned char* out);
typedef int (*intf_setData_fn)(int keyNo, QString regName, int address, int count, unsigned char* data, int mode);
typedef int (*intf_addrMerge_fn)(QList<KEY_ADDRESS>& keys);
typedef int (*intf_addConditionRead_fn)(KEY_ADDRESS* key, int kind);
typedef int (*intf_setRcpAddress_fn)(QVector<_RCP_VAR_PRO>* vars);
typedef int (*intf_multiCopy_fn)(
    QString* regName, int start, int count, int interval, QVector<QString>* texts, QVector<int>* numbers);

/* ------------------------------------------------------------------------------------
 * The settings string.
 *
 * intf_getDriverPropertyPage describes the page: the page kind, then one "Label_default"
 * part per field, "2_0,AmsNetId_192.168.1.100.1.1,AdsPort_801". intf_SetDriverPropertyPage
 * takes the page kind and the values alone, "2_0,192.168.1.100.1.1,851": the description
 * itself is NOT a settings string (handed back, it sets Net ID 0.168.1.100.1.1 and port 0,
 * without a word).
 *
 * ads_settingsFromPropertyPage builds the settings string from the description and the
 * user's values, one per field in the description's order. A missing or empty value takes
 * the field's default; a value written with its label ("AdsPort_851") loses the label.
 * It refuses (false, the reason in *why) what the driver would take wrongly without a word:
 * a description without exactly two fields (the driver acts on exactly three parts), more
 * values than fields, a value holding a comma, an AmsNetId that is not six numbers 0..255,
 * an AdsPort that is not a number 1..65535.
 * ---------------------------------------------------------------------------------- */

/* True when text is 1 to `digits` decimal digits whose value lies in [low, high]. */
inline bool ads_isDecimalIn(const QString& text, int digits, int low, int high)
{
    if (text.isEmpty() || text.size() > digits)
        return false;
    for (int i = 0; i < text.size(); ++i)
        if (text.at(i) < QLatin1Char('0') || text.at(i) > QLatin1Char('9'))
            return false;
    const int v = text.toInt();
    return v >= low && v <= high;
}

inline bool ads_settingsFromPropertyPage(
    const QString& description, const QStringList& values, QString* settings, QString* why)
{
    QString reason;
    const QStringList parts = description.split(QLatin1String(","));
    QStringList out;
    out.append(parts.at(0)); /* the page kind, handed back as it is */
    if (parts.size() != 3)
        reason = QString::fromLatin1("the description \"%1\" has %2 fields; the driver takes exactly 2")
                     .arg(description)
                     .arg(parts.size() - 1);
    else if (values.size() > parts.size() - 1)
        reason = QString::fromLatin1("%1 values for %2 fields").arg(values.size()).arg(parts.size() - 1);
    for (int i = 1; i < parts.size() && reason.isEmpty(); ++i) {
        const int cut = parts.at(i).indexOf(QLatin1Char('_'));
        const QString label = cut < 0 ? QString() : parts.at(i).left(cut);
        const QString fallback = cut < 0 ? parts.at(i) : parts.at(i).mid(cut + 1);
        QString value = i - 1 < values.size() ? values.at(i - 1).trimmed() : QString();
        if (!label.isEmpty() && value.startsWith(label + QLatin1Char('_')))
            value = value.mid(label.size() + 1);
        if (value.isEmpty())
            value = fallback;
        bool ok = !value.contains(QLatin1Char(','));
        if (ok && label == QLatin1String("AmsNetId")) {
            const QStringList bytes = value.split(QLatin1String("."));
            ok = bytes.size() == 6;
            for (int b = 0; ok && b < bytes.size(); ++b)
                ok = ads_isDecimalIn(bytes.at(b), 3, 0, 255);
        } else if (ok && label == QLatin1String("AdsPort")) {
            ok = ads_isDecimalIn(value, 5, 1, 65535);
        }
        if (!ok)
            reason = QString::fromLatin1("%1 \"%2\" is not %3")
                         .arg(label.isEmpty() ? QString::fromLatin1("field %1").arg(i) : label, value,
                             label == QLatin1String("AmsNetId")
                                 ? QString::fromLatin1("six numbers 0..255 separated by \".\"")
                                 : label == QLatin1String("AdsPort") ? QString::fromLatin1("a number 1..65535")
                                                                     : QString::fromLatin1("a value without \",\""));
        out.append(value);
    }
    if (!reason.isEmpty()) {
        if (why)
            *why = reason;
        return false;
    }
    if (settings)
        *settings = out.join(QLatin1String(","));
    return true;
}

#endif /* ADS_ETHERNET_HOST_H */
