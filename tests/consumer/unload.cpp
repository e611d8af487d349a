// Loads the shared library at run time, uses it, unloads it, twice over, and checks that each
// dlclose really unmaps it: a library that glibc marks NODELETE (a STB_GNU_UNIQUE symbol is enough)
// would stay mapped, keeping its statics and thread hooks alive in a process that let it go.
//   mw_unload <path/to/libmwsync.so>      prints "unload ok" when every check held
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace {

bool mapped(const std::string& file) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        if (line.find(file) != std::string::npos) return true;
    }
    return false;
}

// The exported functions are reached by their mangled names, as a plug-in host would.
typedef const void* (*CurrentThread)();
typedef const char* (*GetName)(const void*);

bool loadUseUnload(const char* path, const std::string& file, int round) {
    void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        std::printf("FAILED: round %d: dlopen: %s\n", round, dlerror());
        return false;
    }
    bool ok = mapped(file);
    if (!ok) std::printf("FAILED: round %d: the loaded library is not in the maps\n", round);
    auto currentThread = reinterpret_cast<CurrentThread>(dlsym(library, "_ZN2mw6Thread13currentThreadEv"));
    auto getName = reinterpret_cast<GetName>(dlsym(library, "_ZNK2mw6Thread7getNameEv"));
    if (currentThread == nullptr || getName == nullptr) {
        std::printf("FAILED: round %d: the library's functions are not found\n", round);
        ok = false;
    } else if (getName(currentThread()) == nullptr) {
        std::printf("FAILED: round %d: the adopted main thread has no name\n", round);
        ok = false;
    }
    if (dlclose(library) != 0) {
        std::printf("FAILED: round %d: dlclose: %s\n", round, dlerror());
        return false;
    }
    if (mapped(file)) {
        std::printf("FAILED: round %d: the library is still mapped after dlclose\n", round);
        ok = false;
    }
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <path/to/libmwsync.so>\n", argv[0]);
        return 2;
    }
    const char* slash = std::strrchr(argv[1], '/');
    const std::string file = slash != nullptr ? slash + 1 : argv[1];
    bool ok = loadUseUnload(argv[1], file, 1) && loadUseUnload(argv[1], file, 2);
    if (ok) std::printf("unload ok\n");
    return ok ? 0 : 1;
}
