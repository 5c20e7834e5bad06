/*
 * ads_ethernet: ADS over AMS/TCP communication driver for an operator-panel runtime.
 *
 * The one shared header of the driver. It declares the records that cross the host
 * interface, the driver object, the constant tables (each source module keeps its own
 * copy), the nineteen exported entry points and the internal free functions.
 *
 * The host owns the TCP connection: it asks intf_getSendFrame() for the next frame,
 * sends it and hands the reply to intf_dealRcvFrame(). The driver keeps a cache of PLC
 * memory and reports changed values through the value-change callback.
 *
 * Driver sources stay inside C++11 and the API that Qt 4.8, 5 and 6 share.
 */
#ifndef ADS_ETHERNET_H
#define ADS_ETHERNET_H

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QVector>

class QHostAddress;

#if defined(_WIN32)
#define ADS_EXPORT __declspec(dllexport)
#else
#define ADS_EXPORT __attribute__((visibility("default")))
#endif

/* ------------------------------------------------------------------------------------
 * Records. KEY_ADDRESS, _RCP_VAR_PRO and FRAME_PRO are built or read by the host:
 * their field order and types are fixed. The 1024-byte buffers are copied whole.
 * ---------------------------------------------------------------------------------- */

/* One read or write request item. */
struct VARIABLE {
    int kind;                 /* 4 cyclic read; condition-read kind; write mode */
    int keyNo;                /* station / connection number */
    QString regName;          /* one of REG_LIST; a word register after merging */
    int address;              /* bit number for bit registers, else byte offset */
    int length;               /* bits for bit registers, bytes for word registers */
    unsigned char data[1024]; /* bytes to write, or recipe values */
};

/* One address as the host hands it in. */
struct KEY_ADDRESS {
    QString hostText; /* the host's; carried along */
    int hostNumber;   /* the host's; carried along */
    int rcpDataIndex; /* recipe items: index in 16-bit words into the recipe buffer */
    int keyNo;
    QString regName;
    QString hostText2; /* the host's; carried along */
    int address;       /* in the register's own units */
    int unitMark;      /* -1: units are bits, one byte per unit in data */
    int length;        /* number of units */
    unsigned char data[1024];
};

/* One recipe variable. */
struct _RCP_VAR_PRO {
    int driverNo; /* only entries equal to callBackContext are taken */
    int keyNo;
    QString regName;
    int address;
    int length;
    int rcpDataIndex; /* index in 16-bit words into the host's recipe buffer */
    int hostField;    /* the host's; carried along */
};

/* One cached unit of PLC memory. */
struct _DATA_ {
    unsigned char spare;
    unsigned char writeFlag;     /* 1: show writeValue instead of value */
    unsigned int bitWriteState;  /* two bits per bit of the unit: queued bit writes */
    unsigned int monitorFlag;    /* monitored whole items touching this unit */
    unsigned int bitMonitorMask; /* monitored single bits of this unit */
    int keyNo;
    QString areaName; /* "I", "Q" or "M" */
    int address;
    unsigned char value[4];      /* as last read or confirmed, low byte first */
    unsigned char writeValue[4]; /* as last written by the host */
};

/* One prepared frame, with the variable it serves. */
struct FRAME_PRO {
    unsigned char frame[1024]; /* wire image, starting with the AMS/TCP header */
    int sendLen;               /* valid bytes in frame */
    int recvLen;               /* length the reply must have (handshake: minimum) */
    int dataStart;             /* data position in the reply (reads) or in frame (writes) */
    int readLen;               /* data bytes a read asks for; 0 for handshake and writes */
    int spareField;            /* never set by the driver; carried along */
    VARIABLE var;
};

typedef int (*VALUE_CHANGE_CALLBACK)(int context, int keyNo, QString addressText, int address);

/* ------------------------------------------------------------------------------------
 * Constant tables. Defined here so that each source module holds its own copy.
 * ---------------------------------------------------------------------------------- */

static const QString REG_LIST[6] = {QString::fromLatin1("I_bit"), QString::fromLatin1("Q_bit"),
    QString::fromLatin1("M_bit"), QString::fromLatin1("I_W"), QString::fromLatin1("Q_W"), QString::fromLatin1("M_W")};

/* Columns: format mask, minimum, maximum, data width, access, address unit.
 * Row 6 is a spare copy of the word row: a name that matches no register looks up
 * index 6 and so still reads inside the table. */
static const QString ADDRESS_RANGE_PRO[7][6]
    = {{QString::fromLatin1("DDDDD.D"), QString::fromLatin1("0.0"), QString::fromLatin1("65535.7"),
           QString::fromLatin1("1"), QString::fromLatin1("RW"), QString::fromLatin1("8")},
        {QString::fromLatin1("DDDDD.D"), QString::fromLatin1("0.0"), QString::fromLatin1("65535.7"),
            QString::fromLatin1("1"), QString::fromLatin1("RW"), QString::fromLatin1("8")},
        {QString::fromLatin1("DDDDD.D"), QString::fromLatin1("0.0"), QString::fromLatin1("65535.7"),
            QString::fromLatin1("1"), QString::fromLatin1("RW"), QString::fromLatin1("8")},
        {QString::fromLatin1("DDDDD"), QString::fromLatin1("0"), QString::fromLatin1("65535"),
            QString::fromLatin1("16"), QString::fromLatin1("RW"), QString::fromLatin1("8")},
        {QString::fromLatin1("DDDDD"), QString::fromLatin1("0"), QString::fromLatin1("65535"),
            QString::fromLatin1("16"), QString::fromLatin1("RW"), QString::fromLatin1("8")},
        {QString::fromLatin1("DDDDD"), QString::fromLatin1("0"), QString::fromLatin1("65535"),
            QString::fromLatin1("16"), QString::fromLatin1("RW"), QString::fromLatin1("8")},
        {QString::fromLatin1("DDDDD"), QString::fromLatin1("0"), QString::fromLatin1("65535"),
            QString::fromLatin1("16"), QString::fromLatin1("RW"), QString::fromLatin1("8")}};

/* The identifiers below are spelled so: the rest of the driver uses them (INTERNALS.md K4). */
static const QString PROCOTOL_NAME = QString::fromLatin1("ads_ethernet");
static const QString PROCOTOL_VERSION = QString::fromLatin1("2.0.0.0");
static const QString PROCOTOL_DEFALT_COM_PAR = QString::fromLatin1("9600,8,NONE,1");
static const QString PROCOTOL_DEFALT_IP_PAR = QString::fromLatin1("192.168.1.100,48898");
static const QString PROCOTOL_PAR_HMI_SET_MODE = QString::fromLatin1("2_0,AmsNetId_192.168.1.100.1.1,AdsPort_801");

/* Positions of the recipe request flags in the host's status block. */
enum { HOST_FLAG_RECIPE_WRITE = 60115, HOST_FLAG_RECIPE_READ = 60116 };

/* Key of the cache index: the area name is replaced by its id in the index's name table. */
struct DATA_AREA_KEY {
    int keyNo;
    int nameId;
    int address;
};
inline bool operator==(const DATA_AREA_KEY& a, const DATA_AREA_KEY& b)
{
    return a.keyNo == b.keyNo && a.nameId == b.nameId && a.address == b.address;
}
inline uint qHash(const DATA_AREA_KEY& k)
{
    unsigned int h = static_cast<unsigned int>(k.address) * 2654435761u;
    h ^= static_cast<unsigned int>(k.keyNo) * 40503u + 0x9e3779b9u + (h << 6) + (h >> 2);
    h ^= static_cast<unsigned int>(k.nameId) * 97u;
    return h;
}

/* The address texts a change report names for one area ("M", "M_bit", "M_B", "M_W", "M_D"),
 * built once so that a report copies a shared string instead of building one. */
struct AREA_NAME_TEXTS {
    QString name;
    QString bitText;
    QString byteText;
    QString wordText;
    QString dwordText;
};

/* The cache index: where the unit (keyNo, area, address) lies in Protocol::dataAreaList,
 * and the report texts of each area name. dataAreaList grows only by
 * findOrCreateArea, which keeps the index in step, and is emptied only by
 * intf_initProperty, which clears it; so each key is in the list once and the index
 * needs no checks of its own. Guarded by Protocol::mutex, like the list. */
class CacheIndex {
public:
    CacheIndex();
    /* Forgets every position (the list is emptied beside it); the name table stays. */
    void clear();
    /* The id of an area name; a name seen for the first time is added to the table. */
    int areaId(const QString& name);
    /* areaId() of a register's area (its name up to the first "_"), without building it. */
    int areaIdOfRegister(const QString& regName);
    const AREA_NAME_TEXTS& texts(int areaId) const { return names_.constBegin()[areaId]; }
    /* Position of the unit in dataAreaList; -1 when it is not cached. */
    int find(int keyNo, int areaId, int address) const;
    void insert(int keyNo, int areaId, int address, int position);
    /* Indexes `list` from scratch, the first of equal entries winning. Only for a list
     * built by hand (tests): the driver's own changes keep the index in step. */
    void rebuild(const QList<_DATA_>& list);
    /* True only after rebuild() met the same key twice. */
    bool hasDuplicates() const { return duplicates_; }
    /* Position of the unit that holds the byte after the unit at `position` (same key, same
     * area, the next address); -1 when that byte is not cached. Lets a read walk the units
     * of a block without looking each up, wherever in the list they were created. */
    int successor(int position) const
    {
        return position >= 0 && position < successors_.size() ? successors_.constData()[position] : -1;
    }
    /* successor() of every position below successorCount(), for a loop that follows many. */
    const int* successors() const { return successors_.constData(); }
    int successorCount() const { return successors_.size(); }

private:
    void link(int keyNo, int areaId, int address, int position);

    QList<AREA_NAME_TEXTS> names_;
    QHash<DATA_AREA_KEY, int> positions_;
    bool duplicates_;
    QVector<int> successors_; /* per position of the list: see successor() */
};

/* ------------------------------------------------------------------------------------
 * The driver object. There is exactly one, `driver`, per loaded library.
 *
 * Locking. The host calls intf_getSendFrame/intf_dealRcvFrame from one communication
 * thread and may call intf_setData, intf_getData and intf_addConditionRead from another at
 * the same time.
 *  - `mutex` (the driver's own, non-recursive) guards writeList, conditionReadList with
 *    lastVar, and dataAreaList with its look-up index dataAreaIndex: every access to
 *    them from the entry points that may overlap happens under it.
 *  - `hostMutex` (the host's) guards bytes 60115 and 60116 of hostStatusBlock.
 *  - The two are never held together, and neither is held while the value-change
 *    callback runs, so a callback may call intf_getData, intf_setData and
 *    intf_addConditionRead on the same thread.
 *  - Every other member belongs to the communication thread, or to configuration calls
 *    (intf_initProperty, intf_SetDriverPropertyPage, intf_addrMerge, intf_setRcpAddress)
 *    that the host makes while no other thread is in the driver.
 * ---------------------------------------------------------------------------------- */
class Protocol {
public:
    Protocol();

    VALUE_CHANGE_CALLBACK valueChangeCallBack;
    int callBackContext;
    int initParam1;  /* non-zero: writes only update the cache */
    int initParam2;  /* stored only */
    int initParam3;  /* retry limit */
    int maxMergeGap; /* largest gap in bytes bridged when merging */
    unsigned char* hostStatusBlock;
    void* hostArg2;
    unsigned char* rcpBuffer;
    QMutex* hostMutex;
    QList<VARIABLE> readList;
    QList<VARIABLE> writeList; /* guarded by mutex */
    QList<VARIABLE> conditionReadList; /* guarded by mutex */
    QList<_DATA_> dataAreaList;        /* guarded by mutex */
    QVector<_RCP_VAR_PRO> rcpVarList;
    QVector<_RCP_VAR_PRO> rcpTransferList;
    QList<int> rcpBlockStartList;
    VARIABLE lastVar; /* guarded by mutex */
    QList<QString> regNameList;
    VARIABLE curVar;
    QList<VARIABLE> curReadList;
    int curFrameKind; /* 0 idle, 1 handshake, 2 write, 3 condition read, 4 cyclic read,
                                  5 recipe write, 6 recipe read */
    int priorityCount;
    int needHandShake;
    int errorCount;
    int maxBlockBits;
    int maxBlockUnits;
    int commFailed;
    int curFrameIndex;
    int initDone;
    QList<FRAME_PRO> frameList;
    QMutex mutex;
    int rcpIndex;
    QString mergeName;
    QList<int> setDataIntList;
    int framesBuilt;
    unsigned char targetAmsNetId[6];
    int targetAmsPort;
    unsigned char sourceIp[4];

    CacheIndex dataAreaIndex; /* beside dataAreaList; guarded by mutex, like the list */
};

extern Protocol driver;

/* ------------------------------------------------------------------------------------
 * Exported entry points (C linkage; the only symbols the plugin exports).
 * ---------------------------------------------------------------------------------- */
extern "C" {
ADS_EXPORT void intf_getProtocolType(int* type);
ADS_EXPORT QString intf_getVersion();
ADS_EXPORT void intf_setAddrValueChangeCallBack(VALUE_CHANGE_CALLBACK callback);
ADS_EXPORT int intf_initProperty(
    void* hostStatusBlock, void* hostArg2, void* rcpBuffer, int* mode, const char* initString, QMutex* hostMutex);
ADS_EXPORT void intf_getDriverParameter(QString& parameter);
ADS_EXPORT void intf_getDriverPropertyPage(QString& page);
ADS_EXPORT void intf_SetDriverPropertyPage(QString settings);
ADS_EXPORT int intf_getRegListByType(int type, QList<QString>& names);
ADS_EXPORT int intf_getRegDiscription(QString regName, QList<QString>& description);
ADS_EXPORT int intf_checkAddr(QString regName, QString addrText, int* address, int dataType, int count, int access);
ADS_EXPORT int intf_checkAddrValidity(QString regName, QString addrText, int* address, int count, int isWord);
ADS_EXPORT int intf_getSendFrame(FRAME_PRO* out);
ADS_EXPORT int intf_dealRcvFrame(QByteArray& reply, QString& errorText);
ADS_EXPORT int intf_getData(int keyNo, QString regName, int address, int count, unsigned char* out);
ADS_EXPORT int intf_setData(int keyNo, QString regName, int address, int count, unsigned char* data, int mode);
ADS_EXPORT int intf_addrMerge(QList<KEY_ADDRESS>& keys);
ADS_EXPORT int intf_addConditionRead(KEY_ADDRESS* key, int kind);
ADS_EXPORT int intf_setRcpAddress(QVector<_RCP_VAR_PRO>* vars);
ADS_EXPORT int intf_multiCopy(
    QString* regName, int start, int count, int interval, QVector<QString>* texts, QVector<int>* numbers);
}

/* ------------------------------------------------------------------------------------
 * Internal functions (hidden in the plugin; reachable from the static library for tests).
 * ---------------------------------------------------------------------------------- */

/* Register table and address syntax */
int a2i(QString text, int& address, QString format, QString regName);
int addr_str2int(QString text, QString regName);
QString addr_int2str(int address, QString regName);
int addrOffset(QString regName, int address);
int getIndexFromRegName(QString regName);
int getRegAddressWeight(int keyNo, QString regName, int address, int spare);
int _setBitValue(int value, int bit, int on);
int uchar2int16(unsigned char low, unsigned char high);
int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3);
int asc2hex(QByteArray text, int pos);

/* Own IPv4 address: the text of the first of `addresses` (in their order) that is IPv4,
 * not null and not 127.0.0.1 and, when netIdParts has two or more parts, whose text
 * contains both of the first two parts as substrings. Empty text when none qualifies.
 * intf_SetDriverPropertyPage calls it with QNetworkInterface::allAddresses(). */
QString selectOwnIpv4Address(const QList<QHostAddress>& addresses, const QList<QString>& netIdParts);

/* Frame codec */
void handShakeFrame();
int check_rcv_data(unsigned char* data, QList<VARIABLE> readList, int len);
unsigned short computate_check(unsigned char* buf, unsigned short len);
int getReadFrame(QList<VARIABLE> list);
int allMix_GetDataStartPosition(QByteArray reply, QList<VARIABLE> list, int n);
int allMix_GetRecvLenFromReadList(QList<VARIABLE> list);
void getWriteFrame(VARIABLE& var);

/* Reply handling */
QString getErrorInfo(QByteArray reply);
int dealReadFrameReturnSaveData(QByteArray reply);
void analyzeFrameOfVal(QByteArray reply, int readLen, int dataStart, VARIABLE var);

/* Data store */
int getIndexOfDataArea(int keyNo, QString areaName, int address, QList<_DATA_>& list);
/* Indexes dataAreaList anew after code outside the driver (a test) changed its entries. */
void rebuildDataAreaIndex();
int _setDataAreaMonitorFlag(int keyNo, QString regName, int address, int count);
void dealListWhenFinish();
void write_saveDataToArea(int keyNo, QString regName, int address, int count, unsigned char* data);
void _write_FailOrSuc(int keyNo, QString regName, int address, int count, int ok);
void _byteDataChange(unsigned char* oldValue, unsigned char* newValue, int index, int noBits);
void _wordDataChange(int* oldValue, int* newValue, int index, int noBits);
void _dwordDataChange(int* oldValue, int* newValue, int index, int noBits);
void _bitDataChange(int index);

/* Address planning */
void addrMerge(QList<KEY_ADDRESS>& keys, int mode);
int judgeAddrMerge(KEY_ADDRESS block, KEY_ADDRESS next, int gapMode);
void groupingKey(KEY_ADDRESS& key, int maxLen, QList<KEY_ADDRESS>& out, int copyData);
void rcpAddrToVar(_RCP_VAR_PRO item, VARIABLE& var, int mode);
int multiCp(QString regName, QString format, int start, int count, int interval, QVector<QString>& texts,
    QVector<int>& numbers, int maxNumber, QString maxText);

#endif /* ADS_ETHERNET_H */
