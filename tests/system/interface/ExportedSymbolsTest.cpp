// The names under which programs that were built earlier, or by another compiler, find the library's functions.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <cctype>
#include <cstddef>
#include <fstream>
#include <memory>
#include <set>
#include <string>

#include "tarvo.h"

namespace {

using Names = std::set<std::string>;

const Names &PlainNames() {
    static const Names names = {
        "DestroyResponse",     "GetCurrDomain",        "IsCrossDomainPipe",     "IsOrlaDomainPipe",
        "NuroCoreSetaffinity", "TarvoCfgFinishServer", "TarvoCleanPipe",        "TarvoClosePipe",
        "TarvoCreateClient",   "TarvoCreateServer",    "TarvoExceptionHandler", "TarvoGetRemoteName",
        "TarvoOpen",           "TarvoPipeTypeOpen",    "TarvoRPCSync",          "TarvoSendRequest",
        "TarvoSendResponse",   "TarvoServiceIsExist",  "TarvoTimedRPCSync"};
    return names;
}

// The wrappers of the security library have plain names too, although no public header declares them.
const Names &SecurityNames() {
    static const Names names = {"AuthFreeCon",
                                "AuthGetCon",
                                "AuthGetPidCon",
                                "AuthProxyFree",
                                "AuthRestoreCon",
                                "AuthSecurityCheckContext",
                                "AuthSecurityComputeAv",
                                "AuthSecurityGetEnforce",
                                "AuthSelinuxRestoreCon",
                                "AuthSelinuxSetFileCon",
                                "AuthSetCon",
                                "AuthSetFileCon",
                                "AuthStringToAvPerm",
                                "AuthStringToSecurityClass"};
    return names;
}

class ExportedSymbolsTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(library, nullptr) << dlerror(); }

    const link_map *Map() const {
        link_map *map = nullptr;
        return dlinfo(library.get(), RTLD_DI_LINKMAP, &map) == 0 ? map : nullptr;
    }

    bool Exports(const std::string &name) const { return dlsym(library.get(), name.c_str()) != nullptr; }

    void ExpectAll(const Names &names) const {
        for (const std::string &name : names) {
            EXPECT_TRUE(Exports(name)) << name;
        }
    }

    // The flags by which the library tells the loader how to treat it (DT_FLAGS_1).
    ElfW(Xword) LoaderFlags() const {
        const link_map *map = nullptr;
        if (dlinfo(library.get(), RTLD_DI_LINKMAP, &map) != 0) {
            return 0;
        }
        for (const ElfW(Dyn) *entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
            if (entry->d_tag == DT_FLAGS_1) {
                return entry->d_un.d_val;
            }
        }
        return 0;
    }

private:
    struct Close {
        void operator()(void *handle) const { dlclose(handle); }
    };
    std::unique_ptr<void, Close> library{dlopen(TARVO_LIBRARY, RTLD_NOW)};
};

// The name of the function that a line declares; none where it declares something else.
std::string FunctionIn(const std::string &line) {
    const std::size_t end = line.find('(');
    const std::size_t before = line.find_last_of(" *", end);
    if (end == std::string::npos || before == std::string::npos ||
        std::isalpha(static_cast<unsigned char>(line[0])) == 0) {
        return "";
    }
    return line.substr(before + 1, end - before - 1);
}

// Names of the functions that the public header declares on one side of its `extern "C"`.
Names Declared(bool plain) {
    std::ifstream header(TARVO_PUBLIC_HEADER);
    Names names;
    bool inPlain = false;
    for (std::string line; std::getline(header, line);) {
        const std::string function = FunctionIn(line);
        if (line == "extern \"C\" {") {
            inPlain = true;
        } else if (line == "} // extern \"C\"") {
            inPlain = false;
        } else if (inPlain == plain && !function.empty()) {
            names.insert(function);
        }
    }
    return names;
}

TEST_F(ExportedSymbolsTest, EveryFunctionOfTheHeaderHasItsPlainName) { ExpectAll(PlainNames()); }

TEST_F(ExportedSymbolsTest, TheOverloadOfTarvoOpenHasItsMangledName) {
    EXPECT_TRUE(Exports("_Z9TarvoOpenPKcPFviP12TarvoRequestEi9TarvoMode"));
}

TEST_F(ExportedSymbolsTest, TheListAboveIsTheHeaders) {
    EXPECT_EQ(Declared(true), PlainNames());
    EXPECT_EQ(Declared(false), Names{"TarvoOpen"});
}

TEST_F(ExportedSymbolsTest, TheSecurityWrappersHavePlainNames) { ExpectAll(SecurityNames()); }

// Programs call members of the library's classes, its checks and its log function directly.
TEST_F(ExportedSymbolsTest, MembersOfClassesAreExported) {
    ExpectAll({"_ZN10EnvManager8ProcNameEv", "_ZN12TableFactory11GetInstanceEv", "_ZN10TarvoTable17DisableTarvoTableEv",
               "_ZN10WorkerPool13FillWorkersToEi", "_ZN6Worker5StartEv", "_ZN12CallbackPool7DestroyEv",
               "_ZN13TarvoPipeImpl9TimedOpenEi", "_ZN15TarvoClientPipe9TimedOpenEi", "_ZN10PipeServer11GetInstanceEv",
               "_ZN15DataMonitorImpl7DestroyEv", "_ZN13MagicReceiver9RecvMagicEv", "_ZN5Tarvo14GetCurrentTimeEv"});
}

// Threads of the library may still run, and its state lasts to the end of the process.
TEST_F(ExportedSymbolsTest, DlcloseLeavesTheLibraryInMemory) { EXPECT_NE(LoaderFlags() & DF_1_NODELETE, 0U); }

// A program asks the loader for the soname of the library that it was linked to, and the loader keeps that name.
TEST_F(ExportedSymbolsTest, TheSonameCarriesTheMajorVersion) {
    NuroCoreSetaffinity(); // does nothing, but links the library to this program
    Names loaded;
    const auto keep = [](dl_phdr_info *object, std::size_t, void *names) {
        const std::string path = object->dlpi_name;
        static_cast<Names *>(names)->insert(path.substr(path.rfind('/') + 1));
        return 0;
    };
    dl_iterate_phdr(keep, &loaded);
    EXPECT_EQ(loaded.count("libtarvo.so.1"), 1U) << testing::PrintToString(loaded);
}

} // namespace
