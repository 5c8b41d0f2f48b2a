#include "ffmpeg/filter_library.h"

#include "base/dynamic_library.h"

namespace vn::ff {

namespace {

// The name the build's libavfilter is found under.
constexpr const char* kSoname = "libavfilter.so." AV_STRINGIFY(LIBAVFILTER_VERSION_MAJOR);

LoadedTable<FilterLibrary> load() {
  return loadTable<FilterLibrary>(kSoname, [](FilterLibrary& t, const Binder& bind) {
    return bind("avfilter_get_by_name", &t.get_by_name) &&
           bind("avfilter_graph_alloc", &t.graph_alloc) &&
           bind("avfilter_graph_alloc_filter", &t.graph_alloc_filter) &&
           bind("avfilter_graph_create_filter", &t.graph_create_filter) &&
           bind("avfilter_graph_get_filter", &t.graph_get_filter) &&
           bind("avfilter_graph_config", &t.graph_config) &&
           bind("avfilter_graph_free", &t.graph_free) && bind("avfilter_init_str", &t.init_str) &&
           bind("avfilter_link", &t.link) && bind("avfilter_process_command", &t.process_command) &&
           bind("av_buffersrc_add_frame", &t.buffersrc_add_frame) &&
           bind("av_buffersrc_add_frame_flags", &t.buffersrc_add_frame_flags) &&
           bind("av_buffersrc_get_nb_failed_requests", &t.buffersrc_get_nb_failed_requests) &&
           bind("av_buffersink_get_frame", &t.buffersink_get_frame) &&
           bind("av_buffersink_get_samples", &t.buffersink_get_samples);
  });
}

}  // namespace

const FilterLibrary* FilterLibrary::get(std::string* reason) {
  return tableOnce(&load, reason);
}

}  // namespace vn::ff
