// A complete minimal host: loads the driver plugin, configures it, and runs the polling
// cycle over its own TCP connection, as a panel runtime does. The host integration guide
// (docs/HOST_INTEGRATION.md) walks through it.
//
//   minimal_host PLUGIN HOST PORT NETID AMSPORT CYCLES
//
// It watches the word M_W 0 and bit M_bit 2.0, writes M_W 10 = 0x1234 once, and prints
// every change the driver reports.
#include <ads_ethernet.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// The entry points this host uses, resolved by name.
struct Driver {
    int (*initProperty)(void*, void*, void*, int*, const char*, QMutex*);
    void (*setPropertyPage)(QString);
    void (*setCallback)(VALUE_CHANGE_CALLBACK);
    int (*addrMerge)(QList<KEY_ADDRESS>&);
    int (*getSendFrame)(FRAME_PRO*);
    int (*dealRcvFrame)(QByteArray&, QString&);
    int (*getData)(int, QString, int, int, unsigned char*);
    int (*setData)(int, QString, int, int, unsigned char*, int);
};

template <typename F>
bool resolve(void* lib, const char* name, F& fn)
{
    fn = reinterpret_cast<F>(dlsym(lib, name));
    if (!fn)
        std::fprintf(stderr, "minimal_host: the plugin has no %s\n", name);
    return fn != nullptr;
}

// Called by the driver on the polling thread, in the middle of intf_dealRcvFrame or
// intf_setData. Keep it short; it may call intf_getData.
int onValueChange(int context, int keyNo, QString addressText, int address)
{
    std::printf("change: context %d key %d %s %d\n", context, keyNo, addressText.toLatin1().constData(), address);
    return 0;
}

// Reads one AMS/TCP frame: the 6-byte header, then as many bytes as its length field says.
// On a time-out it returns what arrived, so that the driver counts the failure.
QByteArray readReply(int fd, int timeoutMs)
{
    QByteArray reply;
    long need = 6;
    while (reply.size() < need) {
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0)
            break;
        char buf[2048];
        long want = need - reply.size();
        ssize_t n = recv(fd, buf, static_cast<size_t>(want < 2048 ? want : 2048), 0);
        if (n <= 0)
            break;
        reply.append(buf, static_cast<int>(n));
        if (reply.size() >= 6 && need == 6) {
            const unsigned char* h = reinterpret_cast<const unsigned char*>(reply.constData());
            unsigned long length = h[2] | (h[3] << 8) | (h[4] << 16) | (static_cast<unsigned long>(h[5]) << 24);
            need = 6 + static_cast<long>(length < 4096 ? length : 4096);
        }
    }
    return reply;
}

// Connects with TCP_NODELAY; -1 on failure.
int connectTo(const char* host, const char* port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(std::atoi(port)));
    inet_pton(AF_INET, host, &addr.sin_addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return fd;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::fprintf(stderr, "usage: minimal_host PLUGIN HOST PORT NETID AMSPORT CYCLES\n");
        return 2;
    }
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        std::fprintf(stderr, "minimal_host: %s\n", dlerror());
        return 1;
    }
    Driver d;
    if (!resolve(lib, "intf_initProperty", d.initProperty)
        || !resolve(lib, "intf_SetDriverPropertyPage", d.setPropertyPage)
        || !resolve(lib, "intf_setAddrValueChangeCallBack", d.setCallback)
        || !resolve(lib, "intf_addrMerge", d.addrMerge) || !resolve(lib, "intf_getSendFrame", d.getSendFrame)
        || !resolve(lib, "intf_dealRcvFrame", d.dealRcvFrame) || !resolve(lib, "intf_getData", d.getData)
        || !resolve(lib, "intf_setData", d.setData))
        return 1;

    // 1. Initialise: the host owns the status block (recipe flags at bytes 60115 and 60116),
    //    the recipe buffer and the mutex that guards the flags. Fields: callback context,
    //    writes only to the cache (0 = no), a stored value, retry limit, merge gap in bytes.
    static unsigned char statusBlock[65536];
    static unsigned char recipeBuffer[65536];
    static QMutex hostMutex;
    int mode = 0;
    d.initProperty(statusBlock, nullptr, recipeBuffer, &mode, "1#0#0#3#16", &hostMutex);
    // 2. The PLC's AMS Net ID and the AMS port of its runtime.
    d.setPropertyPage(QString::fromLatin1("2_0,%1,%2").arg(QString::fromLatin1(argv[4]), QString::fromLatin1(argv[5])));
    // 3. The callback, before any value can change.
    d.setCallback(onValueChange);
    // 4. The addresses on screen: a word (unitMark 0, length in words) and a bit (unitMark -1).
    QList<KEY_ADDRESS> keys;
    KEY_ADDRESS key;
    std::memset(key.data, 0, sizeof(key.data));
    key.hostNumber = 0;
    key.rcpDataIndex = 0;
    key.keyNo = 0;
    key.regName = QString::fromLatin1("M_W");
    key.address = 0;
    key.unitMark = 0;
    key.length = 1;
    keys.append(key);
    key.regName = QString::fromLatin1("M_bit");
    key.address = 2 * 8 + 0;
    key.unitMark = -1;
    keys.append(key);
    std::printf("read blocks: %d\n", d.addrMerge(keys));

    // 5. Connect.
    int fd = connectTo(argv[2], argv[3]);
    if (fd < 0) {
        std::perror("minimal_host: connect");
        return 1;
    }

    // 6. A write: the value shows in the cache at once and is queued for the PLC.
    unsigned char word[2] = {0x34, 0x12};  // 0x1234, low byte first as in PLC memory
    d.setData(0, QString::fromLatin1("M_W"), 10, 1, word, 0);

    // 7. The polling cycle: one request in flight at a time.
    int cycles = std::atoi(argv[6]);
    int accepted = 0;
    for (int i = 0; i < cycles; ++i) {
        FRAME_PRO frame;
        if (!d.getSendFrame(&frame))
            continue;  // nothing to send now
        if (send(fd, frame.frame, static_cast<size_t>(frame.sendLen), 0) != frame.sendLen) {
            std::fprintf(stderr, "minimal_host: connection lost\n");
            return 1;
        }
        QByteArray reply = readReply(fd, 1000);
        QString errorText;
        int result = d.dealRcvFrame(reply, errorText);
        if (reply.size() < 6
            || reply.size() < 6 + static_cast<unsigned char>(reply[2]) + 256 * static_cast<unsigned char>(reply[3])) {
            // A time-out: the reply may still come later. The driver matches replies by
            // length alone, so it must never get that late reply as the answer to the next
            // frame: start a new connection (or read and drop the late reply first).
            close(fd);
            fd = connectTo(argv[2], argv[3]);
            if (fd < 0) {
                std::perror("minimal_host: reconnect");
                return 1;
            }
        }
        if (result == 1)
            ++accepted;
        else if (result == 2)
            std::printf("communication error: %s\n", errorText.toLatin1().constData());
        // 8: rejected, the same frame comes again; 3: wait for the rest of a handshake reply.
    }
    unsigned char value[2] = {0, 0};
    d.getData(0, QString::fromLatin1("M_W"), 10, 1, value);
    std::printf("accepted %d of %d replies; M_W 10 = 0x%02x%02x\n", accepted, cycles, value[1], value[0]);
    close(fd);
    return accepted > 0 ? 0 : 1;
}
