// libavfilter, which few runs need: it is loaded at the first use, with the libraries that it needs
// itself. A process without the right to open files can still read it in the system's library
// directories. Any thread.
#pragma once

#include <string>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/macros.h>
}

namespace android {
namespace qmmediaeditor {

constexpr char kFilterLibrary[] = "libavfilter.so." AV_STRINGIFY(LIBAVFILTER_VERSION_MAJOR);

// The functions that are used here.
struct FilterLibrary {
    decltype(&avfilter_get_by_name) getByName = nullptr;
    decltype(&avfilter_graph_alloc) allocGraph = nullptr;
    decltype(&avfilter_graph_free) freeGraph = nullptr;
    decltype(&avfilter_graph_create_filter) createFilter = nullptr;
    decltype(&avfilter_link) link = nullptr;
    decltype(&avfilter_graph_config) configure = nullptr;
    decltype(&av_buffersrc_add_frame_flags) addFrame = nullptr;
    decltype(&av_buffersink_get_frame) getFrame = nullptr;

    bool isLoaded = false;
    std::string failure;
};

const FilterLibrary& filterLibrary();

}  // namespace qmmediaeditor
}  // namespace android
