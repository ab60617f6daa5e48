// bench_host_load_once LIBRARY: loads the module as a host does (dlopen, then dlsym of an
// entry point), calls the entry point, and prints the milliseconds from just before loading
// to its answer. One load per process: a library loads only once in a process.
#include <dlfcn.h>

#include <chrono>
#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s LIBRARY\n", argv[0]);
        return 2;
    }
    const auto t0 = std::chrono::steady_clock::now();
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    using StateFn = void* (*)();
    auto entry = reinterpret_cast<StateFn>(dlsym(lib, "ImportDllGetStaticModuleState"));
    if (!entry) {
        std::fprintf(stderr, "%s: no ImportDllGetStaticModuleState\n", argv[1]);
        return 1;
    }
    void* state = entry();
    const auto t1 = std::chrono::steady_clock::now();
    if (!state) {
        std::fprintf(stderr, "%s: the entry point gave no module state\n", argv[1]);
        return 1;
    }
    std::printf("%.3f\n", std::chrono::duration<double, std::milli>(t1 - t0).count());
    return 0;
}
