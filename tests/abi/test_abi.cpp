// The plugin as the host loads it: dlopen with RTLD_NOW | RTLD_LOCAL, the nineteen entry
// points resolved by name and callable, and a dynamic symbol table that exports the
// driver's intf_ entry points and nothing else of the driver.

#include "adstool/driver_plugin.h"

#include <gtest/gtest.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <dlfcn.h>
#include <elf.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>


#ifndef ADS_PLUGIN_PATH
#error "ADS_PLUGIN_PATH must name the built plugin"
#endif
#ifndef ADS_NM_PATH
#define ADS_NM_PATH ""
#endif

namespace {

const char* const kEntryPoints[] = {"intf_getProtocolType", "intf_getVersion", "intf_setAddrValueChangeCallBack",
    "intf_initProperty", "intf_getDriverParameter", "intf_getDriverPropertyPage", "intf_SetDriverPropertyPage",
    "intf_getRegListByType", "intf_getRegDiscription", "intf_checkAddr", "intf_checkAddrValidity", "intf_getSendFrame",
    "intf_dealRcvFrame", "intf_getData", "intf_setData", "intf_addrMerge", "intf_addConditionRead",
    "intf_setRcpAddress", "intf_multiCopy"};

// Names that the static linker itself defines in every shared object and that may show up
// in the dynamic symbol table whatever the version script says:
//  - _init, _fini: the DT_INIT / DT_FINI routines from crti.o/crtn.o;
//  - __bss_start, _edata, _end: section boundary markers that GNU ld and gold define;
//  - __bss_start__, __bss_end__, _bss_end__, __end__: the same markers as the ARM EABI
//    linker scripts spell them.
// exports.map is an anonymous version script, so no version-node name appears either.
const char* const kLinkerSymbols[]
    = {"_init", "_fini", "__bss_start", "_edata", "_end", "__bss_start__", "__bss_end__", "_bss_end__", "__end__"};

bool isEntryPoint(const std::string& name)
{
    for (const char* e : kEntryPoints)
        if (name == e)
            return true;
    return false;
}

bool isLinkerSymbol(const std::string& name)
{
    for (const char* e : kLinkerSymbols)
        if (name == e)
            return true;
    return false;
}

// Loaded through the tools' one loader; closed again at the end of each test.
struct Plugin : adstool::DriverPlugin {
    std::string error;
    Plugin()
    {
        if (load(ADS_PLUGIN_PATH))
            return;
        error = loadError.empty() ? "unknown dlopen error" : loadError;
        for (const std::string& name : missing)
            error += " missing " + name;
        if (handle)
            dlclose(handle);
        handle = nullptr;
    }
    ~Plugin()
    {
        if (handle)
            dlclose(handle);
    }
};

struct DynamicSymbol {
    std::string name;
    unsigned char type;
    unsigned char binding;
};

template <typename Ehdr, typename Shdr, typename Sym>
bool readDynamicSymbols(const std::vector<char>& file, std::vector<DynamicSymbol>& out, std::string& why)
{
    if (file.size() < sizeof(Ehdr)) {
        why = "file shorter than an ELF header";
        return false;
    }
    Ehdr eh;
    std::memcpy(&eh, file.data(), sizeof eh);
    if (eh.e_shoff == 0 || eh.e_shentsize != sizeof(Shdr)
        || eh.e_shoff + static_cast<std::size_t>(eh.e_shnum) * sizeof(Shdr) > file.size()) {
        why = "no usable section header table";
        return false;
    }
    std::vector<Shdr> sections(eh.e_shnum);
    std::memcpy(sections.data(), file.data() + eh.e_shoff, eh.e_shnum * sizeof(Shdr));
    bool found = false;
    for (const Shdr& s : sections) {
        if (s.sh_type != SHT_DYNSYM)
            continue;
        found = true;
        if (s.sh_link >= sections.size() || s.sh_entsize != sizeof(Sym) || s.sh_offset + s.sh_size > file.size()) {
            why = "malformed .dynsym";
            return false;
        }
        const Shdr& str = sections[s.sh_link];
        if (str.sh_offset + str.sh_size > file.size()) {
            why = "malformed .dynstr";
            return false;
        }
        const std::size_t count = s.sh_size / sizeof(Sym);
        for (std::size_t i = 1; i < count; ++i) {  // entry 0 is the null symbol
            Sym sym;
            std::memcpy(&sym, file.data() + s.sh_offset + i * sizeof(Sym), sizeof sym);
            if (sym.st_shndx == SHN_UNDEF)
                continue;
            if (sym.st_name >= str.sh_size)
                continue;
            const char* name = file.data() + str.sh_offset + sym.st_name;
            const std::size_t maxLen = str.sh_size - sym.st_name;
            DynamicSymbol d;
            d.name.assign(name, strnlen(name, maxLen));
            d.type = static_cast<unsigned char>(sym.st_info & 0xF);
            d.binding = static_cast<unsigned char>(sym.st_info >> 4);
            out.push_back(d);
        }
    }
    if (!found)
        why = "no .dynsym section";
    return found;
}

bool dynamicSymbolsOfPlugin(std::vector<DynamicSymbol>& out, std::string& why)
{
    std::ifstream in(ADS_PLUGIN_PATH, std::ios::binary);
    if (!in) {
        why = "cannot open " + std::string(ADS_PLUGIN_PATH);
        return false;
    }
    std::vector<char> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (file.size() < EI_NIDENT || std::memcmp(file.data(), ELFMAG, SELFMAG) != 0) {
        why = "not an ELF file";
        return false;
    }
    if (file[EI_CLASS] == ELFCLASS64)
        return readDynamicSymbols<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(file, out, why);
    if (file[EI_CLASS] == ELFCLASS32)
        return readDynamicSymbols<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(file, out, why);
    why = "unknown ELF class";
    return false;
}

}  // namespace

TEST(PluginAbi, LoadsWithAllSymbolsResolvedAtOnce)
{
    Plugin p;
    ASSERT_NE(nullptr, p.handle) << p.error;
}

TEST(PluginAbi, EveryEntryPointResolvesByName)
{
    Plugin p;
    ASSERT_NE(nullptr, p.handle) << p.error;
    for (const char* name : kEntryPoints) {
        EXPECT_NE(nullptr, dlsym(p.handle, name)) << name << " does not resolve";
    }
    EXPECT_EQ(19u, sizeof kEntryPoints / sizeof kEntryPoints[0]);
}

TEST(PluginAbi, DriverInternalsDoNotResolve)
{
    Plugin p;
    ASSERT_NE(nullptr, p.handle) << p.error;
    const char* internals[] = {
        "driver",                  // the driver object
        "_Z14handShakeFramev",     // handShakeFrame()
        "_Z15computate_checkPht",  // computate_check(unsigned char*, unsigned short)
        "_Z12_setBitValueiii",     // _setBitValue(int, int, int)
        "_Z11uchar2int16hh",       // uchar2int16(unsigned char, unsigned char)
        "_ZN8ProtocolC1Ev",        // Protocol::Protocol()
    };
    for (const char* name : internals)
        EXPECT_EQ(nullptr, dlsym(p.handle, name)) << name << " is visible to the host";
}

TEST(PluginAbi, HarmlessEntryPointsWorkThroughThePointers)
{
    Plugin p;
    ASSERT_NE(nullptr, p.handle) << p.error;

    auto getType = p.getProtocolType;
    auto getVersion = p.getVersion;
    auto getParameter = p.getDriverParameter;
    auto getPage = p.getDriverPropertyPage;
    auto getRegs = p.getRegListByType;
    auto checkAddr = p.checkAddr;
    auto multiCopy = p.multiCopy;
    ASSERT_NE(nullptr, getType);
    ASSERT_NE(nullptr, getVersion);
    ASSERT_NE(nullptr, getParameter);
    ASSERT_NE(nullptr, getPage);
    ASSERT_NE(nullptr, getRegs);
    ASSERT_NE(nullptr, checkAddr);
    ASSERT_NE(nullptr, multiCopy);

    int type = -5;
    getType(&type);
    EXPECT_EQ(1, type);

    EXPECT_EQ("2.0.0.0", getVersion().toStdString());

    QString parameter;
    getParameter(parameter);
    EXPECT_EQ(
        "0,9600,8,NONE,1,0,1,192.168.1.100,48898,ads_ethernet,I_bit,Q_bit,M_bit,I_W,Q_W,M_W", parameter.toStdString());

    QString page;
    getPage(page);
    EXPECT_EQ("2_0,AmsNetId_192.168.1.100.1.1,AdsPort_801", page.toStdString());

    QList<QString> names;
    EXPECT_EQ(1, getRegs(0, names));
    ASSERT_EQ(3, names.size());
    EXPECT_EQ("I_bit", names.at(0).toStdString());
    EXPECT_EQ("M_bit", names.at(2).toStdString());

    int address = -1;
    EXPECT_EQ(0, checkAddr(QString::fromLatin1("I_bit"), QString::fromLatin1("10.3"), &address, -1, 1, 0));
    EXPECT_EQ(83, address);

    QString reg = QString::fromLatin1("M_W");
    QVector<QString> texts;
    QVector<int> numbers;
    EXPECT_EQ(1, multiCopy(&reg, 10, 3, -1, &texts, &numbers));
    ASSERT_EQ(3, numbers.size());
    EXPECT_EQ(14, numbers.at(2));
    EXPECT_EQ("14", texts.at(2).toStdString());
}

TEST(PluginAbi, DynamicSymbolTableExportsOnlyTheEntryPoints)
{
    std::vector<DynamicSymbol> symbols;
    std::string why;
    ASSERT_TRUE(dynamicSymbolsOfPlugin(symbols, why)) << why;

    std::set<std::string> entryPointsSeen;
    for (const DynamicSymbol& s : symbols) {
        if (s.binding == STB_LOCAL)
            continue;  // not visible to other objects
        if (isEntryPoint(s.name)) {
            EXPECT_EQ(STT_FUNC, s.type) << s.name << " is not exported as a function";
            EXPECT_EQ(STB_GLOBAL, s.binding) << s.name << " is not a global symbol";
            entryPointsSeen.insert(s.name);
            continue;
        }
        EXPECT_TRUE(isLinkerSymbol(s.name)) << "exported symbol that is not an entry point: " << s.name;
    }
    for (const char* name : kEntryPoints)
        EXPECT_EQ(1u, entryPointsSeen.count(name)) << name << " is not exported";
    EXPECT_EQ(19u, entryPointsSeen.size());
}

TEST(PluginAbi, NmAgreesThatOnlyTheEntryPointsAreDefined)
{
    const std::string nm = ADS_NM_PATH;
    if (nm.empty())
        GTEST_SKIP() << "no nm program was found at configure time";
    const std::string command = "'" + nm + "' -D --defined-only '" + std::string(ADS_PLUGIN_PATH) + "' 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(nullptr, pipe) << command;
    std::vector<std::string> lines;
    char buf[1024];
    while (lines.size() < 100000 && fgets(buf, sizeof buf, pipe)) {
        std::string line(buf);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.pop_back();
        lines.push_back(line);
    }
    const int status = pclose(pipe);
    ASSERT_EQ(0, status) << command;

    std::set<std::string> entryPointsSeen;
    for (const std::string& line : lines) {
        // "<value> <type> <name>[@version]"
        const std::size_t lastSpace = line.rfind(' ');
        ASSERT_NE(std::string::npos, lastSpace) << line;
        std::string name = line.substr(lastSpace + 1);
        name = name.substr(0, name.find('@'));
        if (isEntryPoint(name)) {
            EXPECT_NE(std::string::npos, line.find(" T ")) << line;
            entryPointsSeen.insert(name);
            continue;
        }
        EXPECT_TRUE(isLinkerSymbol(name)) << "nm lists a symbol that is not an entry point: " << line;
    }
    EXPECT_EQ(19u, entryPointsSeen.size());
}
