#include "graph/GstSupport.h"

#include <mutex>

namespace zub::gst {

void HandOver()
{
    static std::mutex handOver;
    std::lock_guard<std::mutex> lock(handOver);
}

bool EnsureInitialised(std::string* error)
{
    static std::once_flag once;
    static bool ok = false;
    static std::string why;
    std::call_once(once, [] {
        GError* raw = nullptr;
        ok = gst_init_check(nullptr, nullptr, &raw);
        ErrorPtr err(raw);
        if (!ok) why = std::string("the media framework cannot start: ") + (err ? err->message : "unknown reason");
    });
    if (!ok && error) *error = why;
    return ok;
}

bool HaveElements(std::initializer_list<const char*> factories, std::string* error)
{
    if (!EnsureInitialised(error)) return false;
    for (const char* name : factories) {
        Ref<GstElementFactory> f(gst_element_factory_find(name));
        if (!f) {
            if (error) *error = std::string("the media framework's element \"") + name + "\" is missing";
            return false;
        }
    }
    return true;
}

}  // namespace zub::gst
