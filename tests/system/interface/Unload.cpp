// A program that loads the library, uses it and gives it back: nothing of it may be unmapped, since its threads, and
// whatever the program still holds of it, go on.
#include <dlfcn.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

bool IsMapped(const std::string &library) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(library) != std::string::npos) {
            return true;
        }
    }
    return false;
}

int Failed(const char *what) {
    std::fprintf(stderr, "%s\n", what);
    return 1;
}

} // namespace

// The library's path, links resolved.
int main(int argc, char **argv) {
    if (argc != 2) {
        return Failed("usage: unload LIBRARY");
    }
    if (IsMapped(argv[1])) {
        return Failed("the library is linked to this program");
    }
    void *const library = dlopen(argv[1], RTLD_NOW);
    if (library == nullptr) {
        return Failed(dlerror());
    }
    const auto exists = reinterpret_cast<int (*)()>(dlsym(library, "TarvoServiceIsExist"));
    if (exists == nullptr || exists() != 1) {
        return Failed("the library cannot be used");
    }
    if (dlclose(library) != 0) {
        return Failed(dlerror());
    }
    if (!IsMapped(argv[1])) {
        return Failed("dlclose unmapped the library");
    }
    return exists() == 1 ? 0 : Failed("the library cannot be used after dlclose");
}
