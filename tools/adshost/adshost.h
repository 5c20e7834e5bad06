// adshost: the reference host of the ads_ethernet driver.
//
// Loads a driver plugin with dlopen(), calls its intf_ entry points in the order an operator
// panel runtime does, and runs the polling cycle over its own TCP connection to the PLC:
//
//   intf_getSendFrame -> send the first sendLen bytes (one send(), TCP_NODELAY)
//   -> assemble one reply by the AMS/TCP length field -> intf_dealRcvFrame
//
// On a reply time-out or a lost connection the bytes that did arrive (often none) are handed
// to the driver so that it counts the failure; the driver then hands out the same frame
// again. Bytes that arrive late belong to an old request and are drained before the next
// frame is sent. Writes may come from another thread (intf_setData); the value-change
// callback collects the driver's change reports.
//
// The host reads what the driver does not: the AMS header's error code and the ADS result of
// every reply (ReplyCodes). With them it settles the actions asked of it (writes, recipe
// transfers, condition reads: done or failed, with the codes), tells a session that cannot go
// on (Fatal: no answer at all, or an AMS error), and knows which addresses were ever read.
//
// The driver keeps one global state per loaded library, so only one Session may be open in
// a process at a time.
#pragma once

#include "adstool/clock.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace adshost {

// An address as the host's editor writes it: "M_W:100:4", "M_bit:10.3", "I_W:0", "Q_bit:0.1:8".
// Which registers exist and which address texts are valid is the driver's to say
// (intf_getRegListByType, intf_checkAddr); Session::open and Session::resolve ask it.
struct Address {
    std::string reg;       // "I_bit", "Q_bit", "M_bit", "I_W", "Q_W", "M_W"
    std::string addrText;  // "10.3" or "100"
    int address = 0;       // bit number (byte * 8 + bit) or byte offset
    int count = 1;         // bits for bit registers, 16-bit words for word registers
    // A bit register: the name ends in "_bit", the driver's own rule (a test checks it
    // against the driver's list of bit registers).
    bool isBit() const;
    std::string text() const;  // "M_W:100:4"
    // PLC memory the address covers: area letter ("I", "Q", "M") and bytes [first, last].
    char area() const { return reg.empty() ? '?' : reg[0]; }
    int firstByte() const;
    int lastByte() const;
};

// What a reply says about its request: the AMS header's error code and the ADS result (the
// first four bytes of the reply's data), read from the reply's bytes by the host. The
// driver examines neither; a write that the PLC refuses has the length of a good reply.
struct ReplyCodes {
    bool header = false;     // at least the AMS/TCP and AMS headers arrived
    uint32_t amsError = 0;   // AMS header error code (0x6 no such port, 0x7 no such Net ID)
    bool hasResult = false;  // the reply carries an ADS result
    uint32_t adsResult = 0;
    bool ok() const { return header && amsError == 0 && (!hasResult || adsResult == 0); }
    bool anyError() const { return header && (amsError != 0 || (hasResult && adsResult != 0)); }
};
// Decodes one AMS/TCP reply frame (bytes from the AMS/TCP header on).
ReplyCodes decodeReply(const uint8_t* p, size_t n);
// "AMS error 0x7 (target machine not found)" or "ADS error 0x702 (invalid index group)";
// empty when the codes carry no error.
std::string codesText(const ReplyCodes& c);

// The meaning of an intf_checkAddr result: "the address text does not fit ...".
std::string checkResultText(int result);

// A write: an address and its value bytes in the driver's layout (one byte per bit for bit
// registers, two bytes per word, low byte first, for word registers).
struct Write {
    Address addr;
    std::vector<uint8_t> data;
    std::string text() const;
};

// One recipe variable: words (or bits) at an address, and where its values lie in the
// host's recipe buffer (in 16-bit words). values: what a recipe write downloads.
struct RecipeVar {
    Address addr;
    int rcpDataIndex = 0;
    std::vector<uint16_t> values;
};

// "M_W:100:4" -> Address. False with a reason on a malformed text (the register is not
// checked against the driver here; Session::checkAddress does that).
bool parseAddress(const std::string& text, Address& out, std::string& why);
// "M_W:10=0x1234[,0x5678...]" or "M_bit:10.3=1[,0,...]" -> Write.
bool parseWrite(const std::string& text, Write& out, std::string& why);
// "M_W:200:2=0x1111,0x2222" -> RecipeVar (values optional).
bool parseRecipe(const std::string& text, RecipeVar& out, std::string& why);

// What the driver cannot carry out right is refused before a session starts; each returns
// one line with the reason and what to do, or an empty text when the driver handles it.
// `gap` is the merge gap (--gap): the driver cuts condition reads into pieces of `gap`
// words and writes into pieces of `gap` words or 8 x `gap` bits.
//  - a condition read of a bit register: the driver drops it, no frame, no end report;
//  - a condition read longer than one piece: later pieces start `gap` bytes on instead of
//    2 x `gap`, and read the wrong memory;
//  - a bit write longer than one piece: later pieces take their bits from the wrong place;
//  - a piece longer than a 1024-byte frame (only with --gap 0, which means one piece).
std::string conditionRefusal(const Address& a, int gap);
std::string writeRefusal(const Write& w, int gap);

struct Config {
    std::string driverPath;
    std::string plcHost = "127.0.0.1";
    uint16_t plcPort = 48898;
    std::string netId = "192.168.1.100.1.1";
    int amsPort = 851;      // the AMS port of the PLC runtime; the same default as --probe
    int keyNo = 1;          // station number handed to the driver with every address
    int context = 0;        // first field of the initialisation string
    int retries = 3;        // retry limit (fourth field)
    int gap = 16;           // largest gap in bytes bridged when merging (fifth field)
    int conditionKind = 1;  // kind handed to intf_addConditionRead
    int writeMode = 0;      // mode handed to intf_setData
    int connectTimeoutMs = 1000;
    int replyTimeoutMs = 500;
    int reconnectAttempts = 8;    // per loss of the connection
    int reconnectBackoffMs = 50;  // doubled after each failed attempt
    int reconnectBackoffMaxMs = 1000;
    std::vector<Address> watches;
    std::vector<RecipeVar> recipe;
    std::vector<Address> conditions;  // queued once, before polling starts
    // Writes the host will make: open() checks their addresses with the driver (as written)
    // before anything is configured; they are handed over with Session::write().
    std::vector<Write> writes;
    uint64_t pcapLimitBytes = 0;  // 0: no limit; else the capture ends before this size
    std::string pcapPath;         // empty: no capture
    bool pcapRaw = false;         // LINKTYPE_RAW (101) instead of Ethernet (1)
    // Told what the session does while the user would otherwise see nothing (connecting
    // again after a lost connection); called on the polling thread.
    std::function<void(const std::string&)> notice;
};

// One change report of the driver's value-change callback.
struct Change {
    int context = 0;
    int keyNo = 0;
    std::string text;  // "M_W", "M_bit", "M_B", "-1" (condition read done), "RWI" (recipe)
    int address = 0;
};

// One polling cycle.
struct Exchange {
    int sent = 0;           // result of intf_getSendFrame
    int result = -1;        // result of intf_dealRcvFrame; -1 when nothing was handed over
    std::string errorText;  // the driver's error text for this reply
    int sendLen = 0;
    int commandId = 0;  // command id of the frame sent (6 handshake, 2 read, 3 write)
    int readLen = 0;
    std::string varReg;  // the frame's variable
    int varAddress = 0, varLength = 0, varKind = 0;
    int replyBytes = 0;  // bytes handed to intf_dealRcvFrame
    int recvChunks = 0;  // recv() calls that brought bytes of this reply
    bool timedOut = false;
    bool connectionLost = false;
    bool cyclicRead = false;  // counted as a read of a block of the screen
    // What the frame served: 'H' handshake, 'R' cyclic read, 'C' condition read, 'W' write,
    // 'B' the read before a bit write, 'w' recipe write, 'r' recipe read.
    char purpose = 0;
    ReplyCodes codes;         // decoded from this reply
    int targetPort = 0;       // AMS port the frame was sent to
    std::string sourceNetId;  // the Net ID the driver sent as ("192.168.1.20.1.1")
    double rttMs = 0;
    std::vector<uint8_t> frame;  // the bytes sent
};

struct Stats {
    uint64_t requests = 0;     // frames sent
    uint64_t results[9] = {};  // intf_dealRcvFrame results 0..8 (1, 2, 3, 8, 0 occur)
    uint64_t timeouts = 0;
    uint64_t connectionLosses = 0;
    uint64_t reconnects = 0;
    uint64_t failedReconnects = 0;  // attempts to connect again that failed
    uint64_t staleBytes = 0;     // bytes drained before a send
    uint64_t changes = 0;        // callback reports
    uint64_t fullRefreshes = 0;  // every block of the screen read once
    int blocksPerRefresh = 0;    // result of intf_addrMerge
    double rttMinMs = 0, rttMedianMs = 0, rttMaxMs = 0;  // meaningful only with rttSamples > 0
    uint64_t rttSamples = 0;
    double seconds = 0;  // polling time
    double refreshesPerSecond() const { return seconds > 0 ? fullRefreshes / seconds : 0; }
    std::string figuresLine() const;  // "figures: requests=... "
};

// One action asked for on the command line: a write, a recipe write or read, a condition
// read. Done: the PLC's reply was accepted and its ADS result was 0. Failed: with the reply's
// codes (when there were any) and a reason.
struct Action {
    enum State { Pending, Done, Failed };
    int id = 0;
    std::string kind;  // "write", "recipe write", "recipe read", "condition read"
    std::string what;  // "M_W:10=0x1234"
    State state = Pending;
    ReplyCodes codes;  // of the reply that settled it (failure) or of the last reply seen
    std::string why;   // for a failure: what went wrong, with the meaning of the codes
};

// Why a session cannot go on: no answer at all since the connection was made, or an AMS
// error that retrying does not cure (no such Net ID or port).
struct Fatal {
    // NotAms: the peer answers with bytes that are no AMS/TCP frame.
    enum Kind { None, NoAnswer, AmsError, NotAms };
    Kind kind = None;
    ReplyCodes codes;
    std::string message;
};

// How current a watched value is: read at all in this session, how long ago its oldest byte
// was read, and whether an attempt to read it failed after that (the value shown is older
// than the PLC's).
struct Freshness {
    bool read = false;
    bool stale = false;
    double ageMs = 0;
};

class Plugin;   // the loaded driver
class Capture;  // the pcap writer

class Session {
public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Loads the plugin, resolves the entry points, validates the watched addresses with
    // intf_checkAddr and configures the driver (initialisation string, property page,
    // callback, addresses, recipe, condition reads). No connection yet.
    bool open(const Config& cfg, std::string& why);
    // After a failed open(): true when an address was the cause (a usage error).
    bool openFailedOnAddress() const;
    // After open(): the source AMS Net ID the driver will send as (from its first frame),
    // and this machine's IPv4 address that the driver's rule picks for the PLC's Net ID
    // (empty: none matched, and the driver sends as 0.0.0.0.1.1).
    std::string sourceNetId() const;
    std::string sourceAddress() const;
    // Loads the plugin only (for --version); the driver's version text, or empty.
    static std::string pluginVersion(const std::string& path, std::string& why);
    // Checks an address with the driver (intf_checkAddr; access 1: it is written) and takes
    // the driver's integer address. False with the register, the rule and the driver's
    // result in `why`.
    bool resolve(Address& a, int access, std::string& why);
    // The addresses of the screen and the condition reads, as the driver resolved them.
    std::vector<Address> watches() const;
    std::vector<Address> conditions() const;
    std::vector<Write> writes() const;  // Config::writes, as the driver resolved them
    // The driver's register names (intf_getRegListByType 0: bits, 1: words).
    std::vector<std::string> registers(bool bits);
    // Connects (with the configured time-out). False with a reason.
    bool connect(std::string& why);
    bool connected() const;
    void disconnect();

    // One polling cycle. Reconnects first when the connection was lost (bounded back-off);
    // returns an Exchange with sent 0 when nothing was sent. The reference stays valid until
    // the next step: the session fills two Exchanges in turn, so polling allocates nothing
    // once their buffers have grown. What an exchange settles (actions, figures, history,
    // freshness) is booked while the next request is in flight; every accessor below books
    // it first, so what they show is always up to the last step.
    const Exchange& step();
    // Polls until `cycles` cycles ran, `ms` elapsed, `until` returned true, or the connection
    // is gone for good (whichever comes first; 0 means no limit for cycles and ms, but at
    // least one limit must be given). Returns false when the connection could not be
    // (re)established.
    bool run(uint64_t cycles, int ms, const std::function<bool()>& until = nullptr);
    // Set by another thread to end run() early.
    void requestStop();
    bool failedForGood() const;  // reconnection gave up
    const std::string& failure() const;

    // Thread-safe: may be called from another thread while the polling thread runs.
    // Returns the id of the write's Action.
    int write(const Write& w);
    // Values from the driver's cache: one byte per bit, two bytes per word (low byte first).
    std::vector<uint8_t> read(const Address& a);
    // Recipe transfers: raise the host's request flag under the host mutex. Return the id
    // of the transfer's Action.
    int requestRecipeWrite();
    int requestRecipeRead();
    bool recipeWritePending();
    bool recipeReadPending();
    // The host's recipe buffer (words at rcpDataIndex).
    uint16_t recipeWord(int index);
    void setRecipeWord(int index, uint16_t value);
    // Queues a condition read (only while no other thread is in the driver). Returns the id
    // of its Action.
    int addConditionRead(const Address& a);

    // The actions so far, in the order they were asked for: every pending one and the newest
    // settled ones (1024 beyond the pending; older settled ones are let go, and action(id)
    // then answers Failed, "no longer known", rather than claim an outcome it cannot show).
    std::vector<Action> actions();
    Action action(int id);
    bool actionsSettled();  // none pending
    // Set when the session cannot go on (see Fatal).
    Fatal fatal();
    bool handshakeDone();
    bool answered();  // a byte of a reply ever arrived in this session
    // "connected, but no answer: ... no route for this panel's AMS Net ID X; ..."
    std::string noAnswerText();
    // Whether every byte of the address has been read from the PLC (or written and
    // confirmed by it) in this session.
    bool everRead(const Address& a);
    Freshness freshness(const Address& a);
    // A condition read's value: the data of the PLC's last accepted reply to it, where the
    // cache holds nothing newer that the PLC showed. Not read without such a reply.
    Freshness conditionValue(const Address& a, std::vector<uint8_t>& bytes);
    // A communication error, with the meaning of the last reply's codes and the likely
    // fix: "1#M_W0(2)(38): AMS error 0x6 (target port not found): no ADS port 851 on the
    // PLC: check --ams-port".
    std::string explain(const Exchange& ex);
    // Whether the capture ended at its size limit (pcapLimitBytes).
    bool captureLimitReached() const;
    uint64_t capturePackets() const;

    // Change reports collected since the last call.
    std::vector<Change> takeChanges();
    // The newest 4096 exchanges, oldest first.
    std::vector<Exchange> exchanges();
    Stats stats();  // the round-trip median is over the newest 65536 round trips
    uint64_t requestsSent();  // stats().requests without the figures (cheap: for loops)
    uint64_t fullRefreshes();  // stats().fullRefreshes without the figures (cheap: for loops)
    // Driver error texts of results 2 (the newest 4096), newest last.
    std::vector<std::string> errorTexts();
    int blocks() const;
    int localPort() const;  // the host's ephemeral port (0 when not connected)
    std::string driverVersion();
    int checkAddress(const Address& a, int access);  // intf_checkAddr result

    // Called once by the plugin's callback.
    void onChange(int context, int keyNo, const std::string& text, int address);

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

using adstool::nowMs;  // milliseconds of the tools' monotonic clock

}  // namespace adshost
