// Writes the seed corpora of fuzz_reply and fuzz_address. The ADS replies inside the
// fuzz_reply seeds are the simulator's own (plcsim's Plc answering requests made with its
// frame helpers, its faults for the short, long and refused ones), so that a seed carries
// exactly what the tests' PLC sends:
//
//   make_driver_seeds REPLY_DIR ADDRESS_DIR           (re)writes the seed files
//   make_driver_seeds --check REPLY_DIR ADDRESS_DIR   exit 1 when a committed seed differs,
//                                                     is missing, or is not written any more
//
// A fuzz_reply seed follows the input layout at the top of fuzz_reply.cpp: a header with the
// screen keys and recipe variables, then host actions (polling turns with the reply's bytes,
// writes, condition reads, recipe flags). A fuzz_address seed is an address text, or a
// selector, a number and texts (fuzz_address.cpp).
#include "plc_core.h"

#include "adstool/le.h"

#include <dirent.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using Seeds = std::vector<std::pair<std::string, Bytes>>;

Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
// The same, for the seeds made of the simulator's replies: the operands of << are evaluated
// left to right (those of + in any order), and each reply changes the simulator (invoke id,
// memory), so that the bytes do not depend on the compiler.
Bytes operator<<(Bytes a, const Bytes& b) { return std::move(a) + b; }

Bytes le16(unsigned v) { return {uint8_t(v & 0xFF), uint8_t((v >> 8) & 0xFF)}; }

// ---- the PLC the driver talks to in fuzz_reply ("2_0,127.0.0.1.1.1,851")

class Plc {
public:
    Plc()
    {
        adstool::NetId::parse("127.0.0.1.1.1", plcId_);
        adstool::NetId::parse("10.0.0.5.1.1", panelId_);
        plc_.setNetId(plcId_);
    }
    uint8_t* memory(uint32_t group) { return plc_.memory(group); }

    // The hello: AddDeviceNotification on port 100.
    Bytes handshake(plcsim::Fault fault = plcsim::Fault::None)
    {
        Bytes data(40, 0);
        adstool::setU32(data.data() + 8, 1);  // length
        return ask(100, 6, data, fault);
    }
    Bytes read(uint32_t group, uint32_t offset, uint32_t length, plcsim::Fault fault = plcsim::Fault::None)
    {
        return ask(851, 2, plcsim::readData(group, offset, length), fault);
    }
    Bytes write(uint32_t group, uint32_t offset, const Bytes& bytes, plcsim::Fault fault = plcsim::Fault::None)
    {
        return ask(851, 3, plcsim::writeData(group, offset, bytes), fault);
    }
    void setErrorCode(uint32_t code) { plc_.setFaultErrorCode(code); }

private:
    Bytes ask(uint16_t port, uint16_t cmd, const Bytes& data, plcsim::Fault fault)
    {
        if (fault != plcsim::Fault::None)
            plc_.injectFault(fault, 1);
        return plc_.handle(plcsim::buildRequest(plcId_, port, panelId_, 0x8147, cmd, ++invoke_, data));
    }
    plcsim::Plc plc_;
    adstool::NetId plcId_, panelId_;
    uint32_t invoke_ = 0;
};

// ---- fuzz_reply's input layout

const unsigned kIbit = 0, kMbit = 2, kQW = 4, kMW = 5;

// reg 0..5 (I_bit, Q_bit, M_bit, I_W, Q_W, M_W); words: address raw, 1 + lengthByte % 64
// words; bits: address raw * 8 + (lengthByte & 7), 1 + (lengthByte >> 3) bits.
Bytes key(unsigned reg, unsigned keyNo, unsigned raw, unsigned lengthByte)
{
    return Bytes {uint8_t(reg), uint8_t(keyNo)} + le16(raw) + Bytes {uint8_t(lengthByte)};
}
Bytes recipe(unsigned reg, unsigned keyNo, unsigned raw, unsigned lengthByte, unsigned indexDiv8)
{
    return key(reg, keyNo, raw, lengthByte) + Bytes {uint8_t(indexDiv8)};
}
Bytes header(const std::vector<Bytes>& keys, const std::vector<Bytes>& recipes = {}, unsigned retries = 3,
    unsigned gap = 64)
{
    Bytes out {uint8_t(retries - 1), uint8_t(gap), 0, uint8_t(keys.size()), uint8_t(recipes.size()), 0, 0, 0};
    for (const Bytes& k : keys)
        out = out + k;
    for (const Bytes& r : recipes)
        out = out + r;
    return out;
}
// A polling turn answered with these bytes.
Bytes reply(const Bytes& bytes) { return Bytes {0, 0} + le16(unsigned(bytes.size())) + bytes; }
// A polling turn answered by the target's own well-formed reply of the expected length
// (kind 1) or of a full 1024-byte receive buffer (kind 2).
Bytes wellFormed(unsigned kind, const Bytes& data = {}) { return Bytes {1, uint8_t(kind)} + data; }
Bytes timeout() { return {3}; }
Bytes writeWords(unsigned reg, unsigned keyNo, unsigned address, const Bytes& values)
{
    return Bytes {4, uint8_t(reg - 3), uint8_t(keyNo)} + le16(address) + Bytes {uint8_t(values.size() / 2 - 1)} + values;
}
Bytes writeBits(unsigned reg, unsigned keyNo, unsigned bitAddress, const Bytes& bits)
{
    return Bytes {5, uint8_t(reg), uint8_t(keyNo)} + le16(bitAddress >> 3)
        + Bytes {uint8_t(((bits.size() - 1) << 3) | (bitAddress & 7))} + bits;
}
Bytes conditionRead(unsigned reg, unsigned keyNo, unsigned raw, unsigned lengthByte, unsigned kind = 1)
{
    return Bytes {6, uint8_t(reg), uint8_t(keyNo)} + le16(raw) + Bytes {uint8_t(lengthByte), uint8_t(kind)};
}
Bytes recipeFlags(unsigned write, unsigned read) { return Bytes {7, uint8_t(write | (read << 2))}; }

Seeds replySeeds()
{
    using plcsim::Fault;
    const uint32_t M = plcsim::GroupMemory, Q = plcsim::GroupOutputs;
    // The screen: M_W 10, two words (bytes 10..13), and M_bit 99 (byte 12, bit 3): one block.
    const std::vector<Bytes> screen {key(kMW, 0, 10, 1), key(kMbit, 0, 12, 3)};
    Plc plc;
    uint8_t* m = plc.memory(M);
    m[10] = 0x34, m[11] = 0x12, m[12] = 0x08;
    Seeds s;
    s.push_back({"handshake_46", header(screen) << reply(plc.handshake())});
    s.push_back({"handshake_long", header(screen) << reply(plc.handshake(Fault::Long))});
    s.push_back({"handshake_short", header(screen) << reply(plc.handshake(Fault::Short))});
    s.push_back({"handshake_1024", header(screen) << wellFormed(2) << reply(plc.handshake())});
    s.push_back({"read_50", header(screen) << reply(plc.handshake()) << reply(plc.read(M, 10, 4)) << [&] {
        m[10] = 0x35, m[12] = 0;
        return reply(plc.read(M, 10, 4));
    }()});
    s.push_back({"read_short_long", header(screen) << reply(plc.handshake()) << reply(plc.read(M, 10, 4, Fault::Short))
            << reply(plc.read(M, 10, 4, Fault::Long)) << reply(plc.read(M, 10, 4))});
    for (unsigned i = 0; i < 128; ++i)
        m[i] = uint8_t(i);
    s.push_back({"read_128", header({key(kMW, 1, 0, 63)}) << reply(plc.handshake()) << reply(plc.read(M, 0, 128))});
    s.push_back({"write_42", header(screen) << reply(plc.handshake()) << writeWords(kMW, 0, 10, {0x34, 0x12})
            << reply(plc.write(M, 10, {0x34, 0x12})) << reply(plc.read(M, 10, 4))});
    // M_bit 83 is byte 10, bit 3: the driver reads the byte, then writes it back.
    s.push_back({"bit_write", header(screen) << reply(plc.handshake()) << writeBits(kMbit, 0, 83, {1})
            << reply(plc.read(M, 10, 1)) << reply(plc.write(M, 10, {uint8_t(m[10] | 8)}))});
    plc.setErrorCode(plcsim::ErrServiceNotSupported);
    Bytes refused = reply(plc.read(M, 10, 4, Fault::AdsError)) << reply(plc.read(0x1234, 10, 4));
    plc.setErrorCode(plcsim::ErrInvalidSize);
    s.push_back({"ads_error", header(screen) << reply(plc.handshake()) << refused << reply(plc.read(M, 10, 4, Fault::AdsError))});
    s.push_back({"write_error", header(screen, {}, 2) << reply(plc.handshake()) << writeWords(kMW, 0, 10, {0x01, 0x02})
            << reply(plc.write(M, 10, {0x01, 0x02}, Fault::Short)) << reply(plc.write(M, 10, {0x01, 0x02}, Fault::AdsError))});
    uint8_t* q = plc.memory(Q);
    q[200] = 9, q[201] = 8, q[202] = 7, q[203] = 6;
    s.push_back({"condition_read", header(screen) << reply(plc.handshake()) << conditionRead(kQW, 0, 100, 1)
            << reply(plc.read(Q, 200, 4))});
    s.push_back({"recipe", header(screen, {recipe(kMW, 0, 0, 1, 0), recipe(kMW, 0, 4, 1, 1)}) << reply(plc.handshake())
            << recipeFlags(1, 0) << reply(plc.write(M, 0, {1, 2, 3, 4})) << recipeFlags(0, 1) << reply(plc.read(M, 0, 8))});
    s.push_back({"well_formed_mix", header({key(kMW, 0, 10, 1), key(kMbit, 0, 12, 3), key(kQW, 0, 200, 0), key(kIbit, 2, 3, 9)},
                                        {}, 3, 4)
            << wellFormed(1) << wellFormed(1, Bytes(40, 0x5A)) << timeout() << wellFormed(1)
            << writeWords(3, 0, 40, {1, 2, 3, 4}) << wellFormed(1) << wellFormed(1)});
    return s;
}

// ---- fuzz_address: a selector, a 32-bit number, texts separated by 0x00

Bytes addressInput(unsigned selector, int32_t number, const std::vector<std::string>& texts)
{
    Bytes out {uint8_t(selector)};
    for (int i = 0; i < 4; ++i)
        out.push_back(uint8_t(uint32_t(number) >> (8 * i)));
    for (size_t i = 0; i < texts.size(); ++i) {
        if (i)
            out.push_back(0);
        out.insert(out.end(), texts[i].begin(), texts[i].end());
    }
    return out;
}

Seeds addressSeeds()
{
    Seeds s;
    for (const auto& t : std::vector<std::pair<std::string, std::string>> {{"bit_10_3", "10.3"},
             {"bit_max", "65535.7"}, {"word_65534", "65534"}, {"word_65535", "65535"}, {"bit_10_9", "10.9"},
             {"two_points", "1.2.3"}, {"word_letter", "12a"}})
        s.push_back({"text_" + t.first, Bytes(t.second.begin(), t.second.end())});
    // Checks: selector % 8 in 0..2, the register picked by bits 4..6.
    s.push_back({"check_bit", addressInput(0x20, 1 | (1 << 16), {"10.3"})});
    s.push_back({"check_word", addressInput(0x50, 1, {"65534"})});
    s.push_back({"check_unknown", addressInput(0x60, 1, {"5", "X_W"})});
    // Conversions: selector % 8 in 3..4.
    s.push_back({"a2i_hex", addressInput(0x53, 2, {"1F", "HHHH"})});
    s.push_back({"a2i_bits", addressInput(0x23, 83, {"10.3", "DDDDD.D"})});
    // Settings and initialisation strings.
    s.push_back({"settings", addressInput(0x05, 0, {"2_0,192.168.1.100.1.1,801"})});
    s.push_back({"settings_labels", addressInput(0x05, 0, {"2_0,AmsNetId_192.168.1.100.1.1,AdsPort_801"})});
    s.push_back({"init", addressInput(0x06, 0, {"1#0#0#3#64"})});
    s.push_back({"init_words", addressInput(0x06, 0, {"a#b#c#d#e#f"})});
    // intf_multiCopy: selector % 8 == 7, count = selector % 65.
    s.push_back({"multicopy_words", addressInput(0x57, 10, {"", "\xff"})});
    s.push_back({"multicopy_bits", addressInput(0x27, 6, {"", "\xff"})});
    s.push_back({"multicopy_top", addressInput(0x47, 65534, {"", "\x01"})});
    return s;
}

bool handle(const Seeds& seeds, const std::string& dir, bool check)
{
    bool ok = true;
    std::set<std::string> names;
    for (const auto& seed : seeds) {
        const std::string name = "seed_" + seed.first;
        names.insert(name);
        const std::string path = dir + "/" + name;
        if (check) {
            std::ifstream f(path, std::ios::binary);
            const Bytes have((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
            if (!f.is_open() || have != seed.second) {
                std::fprintf(stderr, "make_driver_seeds: %s is not what the simulator writes now: run make_driver_seeds\n",
                    path.c_str());
                ok = false;
            }
        } else {
            std::ofstream f(path, std::ios::binary | std::ios::trunc);
            f.write(reinterpret_cast<const char*>(seed.second.data()), std::streamsize(seed.second.size()));
            if (!f) {
                std::fprintf(stderr, "make_driver_seeds: cannot write %s\n", path.c_str());
                ok = false;
            }
        }
    }
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name[0] == '.' || names.count(name))
                continue;
            if (check) {
                std::fprintf(stderr, "make_driver_seeds: %s/%s is no seed of make_driver_seeds\n", dir.c_str(),
                    name.c_str());
                ok = false;
            } else if (name.compare(0, 5, "seed_") == 0) {
                std::remove((dir + "/" + name).c_str());  // a seed it no longer writes
            }
        }
        ::closedir(d);
    }
    return ok;
}

}  // namespace

int main(int argc, char** argv)
{
    const bool check = argc == 4 && std::string(argv[1]) == "--check";
    if (argc != 3 && !check) {
        std::fprintf(stderr, "usage: make_driver_seeds [--check] REPLY_DIR ADDRESS_DIR\n");
        return 2;
    }
    const int first = check ? 2 : 1;
    const bool replyOk = handle(replySeeds(), argv[first], check);
    const bool addressOk = handle(addressSeeds(), argv[first + 1], check);
    const bool ok = replyOk && addressOk;
    if (ok)
        std::printf("make_driver_seeds: %s\n", check ? "the committed seeds are current" : "seeds written");
    return ok ? 0 : 1;
}
