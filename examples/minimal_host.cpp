// A complete minimal host: loads the driver plugin, configures it, and runs the polling
// cycle over its own TCP connection as a panel runtime does. docs/HOST_INTEGRATION.md is
// written around it; the test examples.minimal_host runs it against the PLC simulator.
//
//   minimal_host PLUGIN HOST PORT NETID AMSPORT [WORD_OFFSET]
//
// It shows M_W 0 and M_bit 2.0, writes the word M_W WORD_OFFSET (default 10) = 0x1234 and
// the bit M_bit 3.1 = 1, downloads a recipe of two words to M_W 200 and reads it back, and
// tells each action as done or FAILED from the PLC's replies (the driver does not look at
// their ADS result). Exit status 0 only when every action was done.
//
// What it does as every host must: paces the polling (a scan interval per refresh of the
// screen), frames replies by the AMS/TCP length field with a cap, times a reply out after
// 500 ms and hands over what arrived, opens a new connection after a time-out or a broken
// stream (back-off 50 ms doubling to 1 s), drains stray bytes before each request, and
// sends with MSG_NOSIGNAL so that a closed connection is an error, not a SIGPIPE.
#include <ads_ethernet_loader.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const int kReplyTimeoutMs = 500;  // a PLC answers within a few ms; 500 ms means it will not
const int kScanIntervalMs = 50;   // one refresh of the screen at most every 50 ms
const int kBackoffFirstMs = 50;   // reconnect: 50, 100, 200 ... 1000 ms
const int kBackoffMaxMs = 1000;
const int kReconnectAttempts = 8;
const unsigned kMaxFrameBody = 65536;  // a larger AMS/TCP length field is not a frame of ours
const int kRunLimitMs = 20000;         // the whole session, whatever happens
const int kRefreshes = 10;             // the screen is read this often, at least

long long nowMs()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

void sleepMs(long long ms)
{
    if (ms > 0)
        usleep(static_cast<useconds_t>(ms * 1000));
}

unsigned le32(const unsigned char* p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<unsigned>(p[3]) << 24; }

// ------------------------------------------------------------------ the connection

int connectTo(const char* host, int port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return -1;
    sockaddr_in addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, host, &addr.sin_addr) != 1
        || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

// Connects again after a loss: back-off 50 ms doubling to 1 s, a bounded number of tries.
// The driver needs nothing: it hands out the frame in flight again.
int reconnect(const char* host, int port)
{
    int backoff = kBackoffFirstMs;
    for (int attempt = 0; attempt < kReconnectAttempts; ++attempt) {
        sleepMs(backoff);
        int fd = connectTo(host, port);
        if (fd >= 0)
            return fd;
        backoff = backoff * 2 < kBackoffMaxMs ? backoff * 2 : kBackoffMaxMs;
    }
    return -1;
}

// Drops bytes that arrived unasked (a late reply, anything after a frame): they belong to
// no request in flight and must never reach intf_dealRcvFrame. Returns false when the peer
// has closed the connection.
bool drain(int fd)
{
    char buf[4096];
    for (int guard = 0; guard < 64; ++guard) {
        ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0)
            continue;
        return n != 0;
    }
    return true;
}

// One whole request; MSG_NOSIGNAL: a connection the PLC closed gives EPIPE, not SIGPIPE.
bool sendFrame(int fd, const unsigned char* p, int len)
{
    while (len > 0) {
        ssize_t n = send(fd, p, static_cast<size_t>(len), MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<int>(n);
    }
    return true;
}

enum ReadOutcome { Whole, TimedOut, Broken };

// One reply: the 6-byte AMS/TCP header, then as many bytes as its length field says, not a
// byte more, within the reply time-out. A length field beyond kMaxFrameBody is not a frame
// of ours: only the header is kept (the driver rejects it) and the stream is Broken.
ReadOutcome readReply(int fd, QByteArray& reply)
{
    reply.clear();
    const long long deadline = nowMs() + kReplyTimeoutMs;
    unsigned need = 6;
    while (static_cast<unsigned>(reply.size()) < need) {
        const long long left = deadline - nowMs();
        pollfd p = {fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
            return TimedOut;
        char buf[4096];
        unsigned want = need - static_cast<unsigned>(reply.size());
        ssize_t n = recv(fd, buf, want < sizeof buf ? want : sizeof buf, 0);
        if (n <= 0)
            return Broken;
        reply.append(buf, static_cast<int>(n));
        if (need == 6 && reply.size() == 6) {
            const unsigned length = le32(reinterpret_cast<const unsigned char*>(reply.constData()) + 2);
            if (length > kMaxFrameBody)
                return Broken;
            need = 6 + length;
        }
    }
    return Whole;
}

// ------------------------------------------------------------------ what the replies say

// The AMS header's error code and the ADS result of a reply (the driver reads neither).
struct ReplyCodes {
    bool header;
    unsigned amsError;
    bool hasResult;
    unsigned adsResult;
    bool ok() const { return header && amsError == 0 && (!hasResult || adsResult == 0); }
};

ReplyCodes codesOf(const QByteArray& reply)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(reply.constData());
    ReplyCodes c = {false, 0, false, 0};
    if (reply.size() < 38)
        return c;
    c.header = true;
    c.amsError = le32(p + 30);
    if (reply.size() >= 42 && le32(p + 26) >= 4) {
        c.hasResult = true;
        c.adsResult = le32(p + 38);
    }
    return c;
}

// One action asked of the PLC: pending until its replies say done or failed.
struct Action {
    const char* what;
    int state;  // 0 pending, 1 done, -1 failed
    char why[160];
};

void settle(Action& a, int state, const char* why)
{
    if (a.state != 0)
        return;
    a.state = state;
    std::snprintf(a.why, sizeof a.why, "%s", why);
}

// A write frame (command 3) or the read before a bit write (command 2) that covers the
// bytes [first, last] of PLC memory (index group 0x4020).
bool covers(const FRAME_PRO& f, unsigned first, unsigned last)
{
    const unsigned group = le32(f.frame + 38), offset = le32(f.frame + 42), length = le32(f.frame + 46);
    return group == 0x4020 && offset <= last && offset + length > first;
}

// ------------------------------------------------------------------ the driver's side

ADS_ENTRY_POINTS ep;
int changes = 0;

// Called by the driver from inside intf_dealRcvFrame and intf_setData, on the thread that
// made that call, with no lock of the driver held. Short; it may call intf_getData.
int onValueChange(int context, int keyNo, QString addressText, int address)
{
    ++changes;
    if (changes <= 20)
        std::printf("change: context %d key %d %s %d\n", context, keyNo, addressText.toLatin1().constData(), address);
    return 0;
}

unsigned char statusBlock[65536];  // recipe request flags at 60115 (write) and 60116 (read)
unsigned char recipeBuffer[4096];  // recipe values, at 2 x rcpDataIndex, low byte first
QMutex hostMutex;                  // guards the two flag bytes

void raiseFlag(int position)
{
    QMutexLocker lock(&hostMutex);
    statusBlock[position] = 1;
}

bool flagUp(int position)
{
    QMutexLocker lock(&hostMutex);
    return statusBlock[position] == 1;
}

KEY_ADDRESS key(const char* reg, int address, int length)
{
    KEY_ADDRESS k;
    k.hostNumber = 0;
    k.rcpDataIndex = 0;
    k.keyNo = 0;
    k.regName = QString::fromLatin1(reg);
    k.address = address;
    k.unitMark = QString::fromLatin1(reg).endsWith(QLatin1String("_bit")) ? -1 : 0;
    k.length = length;
    std::memset(k.data, 0, sizeof k.data);
    return k;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 6 && argc != 7) {
        std::fprintf(stderr, "usage: minimal_host PLUGIN HOST PORT NETID AMSPORT [WORD_OFFSET]\n");
        return 2;
    }
    const char* host = argv[2];
    const int port = std::atoi(argv[3]);
    const int wordOffset = argc == 7 ? std::atoi(argv[6]) : 10;

    // 1. Load the plugin and resolve the nineteen entry points.
    QString why;
    if (!ads_loadDriver(argv[1], &ep, &why)) {
        std::fprintf(stderr, "minimal_host: %s\n", why.toLocal8Bit().constData());
        return 1;
    }

    // 2. Initialise: callback context 1, writes go to the PLC (0), a stored value (0),
    //    retry limit 3, merge gap 16 bytes. The driver stores 2 in mode.
    int mode = 0;
    ep.initProperty(statusBlock, 0, recipeBuffer, &mode, "1#0#0#3#16", &hostMutex);

    // 3. The settings: the page description's values with the labels off.
    QString description, settings;
    ep.getDriverPropertyPage(description);
    QStringList values;
    values << QString::fromLatin1(argv[4]) << QString::fromLatin1(argv[5]);
    if (!ads_settingsFromPropertyPage(description, values, &settings, &why)) {
        std::fprintf(stderr, "minimal_host: %s\n", why.toLocal8Bit().constData());
        return 2;
    }
    ep.SetDriverPropertyPage(settings);
    std::printf("settings: %s\n", settings.toLatin1().constData());

    // 4. The callback, then the screen: a word (unitMark 0, length in words) and a bit
    //    (unitMark -1, address byte * 8 + bit, length in bits).
    ep.setAddrValueChangeCallBack(onValueChange);
    QList<KEY_ADDRESS> keys;
    keys.append(key("M_W", 0, 1));
    keys.append(key("M_bit", 2 * 8 + 0, 1));
    const int blocks = ep.addrMerge(keys);
    std::printf("read blocks: %d\n", blocks);

    // 5. A recipe of two words at M_W 200, its values at word 0 of the recipe buffer. Its
    //    driverNo is the callback context.
    QVector<_RCP_VAR_PRO> recipe;
    _RCP_VAR_PRO var;
    var.driverNo = 1;
    var.keyNo = 0;
    var.regName = QString::fromLatin1("M_W");
    var.address = 200;
    var.length = 2;
    var.rcpDataIndex = 0;
    var.hostField = 0;
    recipe.append(var);
    ep.setRcpAddress(&recipe);
    const unsigned char recipeValues[4] = {0x0B, 0x0A, 0x0D, 0x0C};  // 0x0A0B, 0x0C0D, low byte first
    std::memcpy(recipeBuffer, recipeValues, 4);

    int fd = connectTo(host, port);
    if (fd < 0) {
        std::perror("minimal_host: connect");
        return 1;
    }

    // 6. The writes: shown in the cache at once, queued for the PLC.
    unsigned char word[2] = {0x34, 0x12};  // 0x1234, low byte first as in PLC memory
    ep.setData(0, QString::fromLatin1("M_W"), wordOffset, 1, word, 0);
    unsigned char bit[1] = {1};
    ep.setData(0, QString::fromLatin1("M_bit"), 3 * 8 + 1, 1, bit, 0);
    Action wordWrite = {"write M_W", 0, ""};
    Action bitWrite = {"write M_bit 3.1", 0, ""};
    Action recipeWrite = {"recipe write", 0, ""};
    Action recipeRead = {"recipe read", 0, ""};
    bool recipeWriteAsked = false, recipeReadAsked = false, recipeWriteSeen = false, recipeReadSeen = false;

    // 7. The polling cycle: one request in flight at a time.
    const long long end = nowMs() + kRunLimitMs;
    long long scanStart = nowMs();
    const long long start = nowMs();
    int cyclicReads = 0, refreshes = 0, requests = 0, reconnects = 0;
    FRAME_PRO frame;
    QByteArray reply;
    QString errorText;
    while (nowMs() < end
        && (wordWrite.state == 0 || bitWrite.state == 0 || recipeRead.state == 0 || refreshes < kRefreshes)) {
        // The recipe transfers, one after the other once the writes are over.
        if (wordWrite.state != 0 && bitWrite.state != 0 && !recipeWriteAsked) {
            recipeWriteAsked = true;
            raiseFlag(HOST_FLAG_RECIPE_WRITE);
        }
        if (recipeWrite.state == 1 && !recipeReadAsked) {
            recipeReadAsked = true;
            std::memset(recipeBuffer, 0, 4);  // so that the read-back shows what the PLC holds
            raiseFlag(HOST_FLAG_RECIPE_READ);
        }
        if (recipeWrite.state == -1)
            settle(recipeRead, -1, "not started: the recipe write failed");

        const bool recipeWriteUp = flagUp(HOST_FLAG_RECIPE_WRITE);
        const bool recipeReadUp = flagUp(HOST_FLAG_RECIPE_READ);
        if (ep.getSendFrame(&frame) != 1) {
            sleepMs(kScanIntervalMs);  // nothing to send: nothing on the screen, nothing queued
            continue;
        }
        const int command = frame.frame[22] | frame.frame[23] << 8;
        const bool cyclicRead = frame.readLen > 0 && frame.var.kind == 4 && !recipeWriteUp && !recipeReadUp;

        // Send, then one reply. Stray bytes go first; a closed or broken connection is
        // opened again and the same frame comes again (the driver keeps it).
        if (fd < 0 || !drain(fd) || !sendFrame(fd, frame.frame, frame.sendLen)) {
            if (fd >= 0)
                close(fd);
            fd = reconnect(host, port);
            if (fd < 0) {
                std::fprintf(stderr, "minimal_host: the connection is lost for good\n");
                return 1;
            }
            ++reconnects;
            continue;
        }
        ++requests;
        const ReadOutcome outcome = readReply(fd, reply);
        const ReplyCodes codes = codesOf(reply);
        // Hand over what arrived, also nothing after a time-out: the driver counts it.
        const int result = ep.dealRcvFrame(reply, errorText);
        if (outcome != Whole) {
            // A late reply must never be taken as the answer to the next frame (the driver
            // matches by length alone): a new connection carries no old replies.
            close(fd);
            fd = reconnect(host, port);
            if (fd < 0) {
                std::fprintf(stderr, "minimal_host: the connection is lost for good\n");
                return 1;
            }
            ++reconnects;
        }
        if (result == 2)
            std::printf("communication error: %s\n", errorText.toLatin1().constData());

        // The actions, from the replies: done only on an accepted reply with ADS result 0.
        if (command == 3 && recipeWriteUp) {
            if (result == 2 || (result == 1 && !codes.ok()))
                settle(recipeWrite, -1, result == 2 ? "given up after the retry limit" : "refused by the PLC");
            else if (result == 1)
                recipeWriteSeen = true;
        } else if (command == 2 && recipeReadUp && !recipeWriteUp) {
            if (result == 2 || (result == 1 && !codes.ok()))
                settle(recipeRead, -1, result == 2 ? "given up after the retry limit" : "refused by the PLC");
            else if (result == 1)
                recipeReadSeen = true;
        } else if (command == 3 || (command == 2 && frame.var.regName == QLatin1String("M_bit"))) {
            Action& a = covers(frame, static_cast<unsigned>(wordOffset), static_cast<unsigned>(wordOffset + 1))
                ? wordWrite
                : bitWrite;
            char text[80];
            if (result == 2) {
                settle(a, -1, "given up after the retry limit");
            } else if (result == 1 && command == 3) {
                std::snprintf(text, sizeof text, "%s 0x%X", codes.amsError ? "AMS error" : "ADS result",
                    codes.amsError ? codes.amsError : codes.adsResult);
                if (codes.ok() && codes.hasResult)
                    settle(a, 1, "ADS result 0");
                else
                    settle(a, -1, text);
            }
        }
        if (recipeWriteSeen && !flagUp(HOST_FLAG_RECIPE_WRITE))
            settle(recipeWrite, 1, "the driver lowered its flag after the PLC took every block");
        if (recipeReadSeen && !flagUp(HOST_FLAG_RECIPE_READ))
            settle(recipeRead, 1, "the driver lowered its flag after the PLC answered every block");

        // Pacing: the driver always has a read to hand out, so a refresh of the screen (one
        // read of each block) is followed by the rest of the scan interval.
        if (cyclicRead && result == 1 && ++cyclicReads >= blocks) {
            sleepMs(scanStart + kScanIntervalMs - nowMs());
            scanStart = nowMs();
            cyclicReads = 0;
            ++refreshes;
        }
    }
    if (fd >= 0)
        close(fd);

    const Action* actions[4] = {&wordWrite, &bitWrite, &recipeWrite, &recipeRead};
    bool allDone = true;
    for (int i = 0; i < 4; ++i) {
        const Action& a = *actions[i];
        std::printf("%s: %s (%s)\n", a.what,
            a.state == 1        ? "done"
                : a.state == -1 ? "FAILED"
                                : "NOT FINISHED",
            a.state == 0 ? "no answer in time" : a.why);
        allDone = allDone && a.state == 1;
    }
    const unsigned short back0 = static_cast<unsigned short>(recipeBuffer[0] | recipeBuffer[1] << 8);
    const unsigned short back1 = static_cast<unsigned short>(recipeBuffer[2] | recipeBuffer[3] << 8);
    const bool matches = std::memcmp(recipeBuffer, recipeValues, 4) == 0;
    std::printf("recipe read back: 0x%04X 0x%04X (%s)\n", back0, back1, matches ? "matches" : "DIFFERS");
    // A value is shown once the PLC has sent it: intf_getData gives zeros for what was never read.
    unsigned char shown[2] = {0, 0};
    ep.getData(0, QString::fromLatin1("M_W"), 0, 1, shown);
    if (refreshes > 0)
        std::printf("M_W 0 = 0x%02X%02X\n", shown[1], shown[0]);
    else
        std::printf("M_W 0 never read\n");
    std::printf("%d refreshes in %lld ms (scan interval %d ms), %d requests, %d change reports\n", refreshes,
        nowMs() - start, kScanIntervalMs, requests, changes);
    std::printf("reconnects: %d\n", reconnects);
    return allDone && matches ? 0 : 1;
}
