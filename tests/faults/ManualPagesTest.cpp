// That no system call of the library is forgotten.
#include "faults/ManualPages.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>

#include "faults/FaultTable.h"
#include "support/Sanitized.h"

namespace tarvo_test {
namespace {

// The functions of the C library that the library is linked to.
std::set<std::string> ImportedFunctions() {
    const std::unique_ptr<FILE, int (*)(FILE *)> output(popen(TARVO_NM " -D --undefined-only " TARVO_LIBRARY, "r"),
                                                        &pclose);
    std::set<std::string> names;
    char line[512];
    while (output != nullptr && fgets(line, sizeof(line), output.get()) != nullptr) {
        std::istringstream words(line);
        std::string kind;
        std::string name;
        words >> kind >> name;
        const std::size_t version = name.find("@GLIBC_");
        if (version != std::string::npos && name.rfind("__", 0) != 0) {
            names.insert(name.substr(0, version));
        }
    }
    return names;
}

TEST(ManualPages, EverySystemCallOfTheLibraryHasARow) {
    if (SANITIZED) {
        GTEST_SKIP() << "a sanitizer's library imports other functions";
    }
    std::set<std::string> rows;
    for (const ManualPage &page : ManualPages()) {
        rows.insert(page.name.substr(0, page.name.find('(')));
    }
    const std::set<std::string> imported = ImportedFunctions();
    EXPECT_EQ(imported.count("mkfifo"), 1U) << TARVO_NM " did not list what " TARVO_LIBRARY " imports";
    for (const std::string &name : imported) {
        EXPECT_TRUE(rows.count(name) != 0 || FunctionsWithoutErrors().count(name) != 0)
            << "how may " << name << " fail? It needs a row, or a place among the functions without errors.";
    }
}

TEST(ManualPages, KeptTableNamesEveryError) {
    std::string rows = "| call | errors |\n|---|---|\n";
    for (const ManualPage &page : ManualPages()) {
        rows += "| " + page.name + " |";
        for (const int error : page.errnos) {
            rows += " " + NameOfErrno(error);
        }
        rows += " |\n";
    }
    CompareWithKept("The errors of each call", rows);
}

} // namespace
} // namespace tarvo_test
