#include "host/convert/FilterLibrary.h"

#include <dlfcn.h>

namespace android {
namespace qmmediaeditor {

namespace {

template <typename Function>
bool find(void* handle, const char* name, Function* function) {
    *function = reinterpret_cast<Function>(dlsym(handle, name));
    return *function != nullptr;
}

FilterLibrary load() {
    FilterLibrary library;
    void* const handle = dlopen(kFilterLibrary, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (handle != nullptr) {
        library.isLoaded = find(handle, "avfilter_get_by_name", &library.getByName) &&
                           find(handle, "avfilter_graph_alloc", &library.allocGraph) &&
                           find(handle, "avfilter_graph_free", &library.freeGraph) &&
                           find(handle, "avfilter_graph_create_filter", &library.createFilter) &&
                           find(handle, "avfilter_link", &library.link) &&
                           find(handle, "avfilter_graph_config", &library.configure) &&
                           find(handle, "av_buffersrc_add_frame_flags", &library.addFrame) &&
                           find(handle, "av_buffersink_get_frame", &library.getFrame);
    }
    if (!library.isLoaded) {
        const char* const error = dlerror();
        library.failure = std::string(kFilterLibrary) + " cannot be loaded" +
                          (error == nullptr ? "" : std::string(": ") + error);
    }
    return library;
}

}  // namespace

const FilterLibrary& filterLibrary() {
    static const FilterLibrary loaded = load();
    return loaded;
}

}  // namespace qmmediaeditor
}  // namespace android
