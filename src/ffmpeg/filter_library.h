// libavfilter, loaded the first time a filter graph is made.
//
// libavfilter brings some thirty libraries of its own into a process
// (speech synthesis voices and recognition, LAPACK, Vulkan...), whose relocation at
// every start costs a short command such as `varnel info` more than probing
// its movie. Only playing, mixing and effects make filter graphs, so the
// library is opened with dlopen on first use and its functions are called
// through this table.
//
// Threads: get() may be called from any thread; the table never changes
// once made.
#pragma once

#include <string>

extern "C" {
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
}

namespace vn::ff {

struct FilterLibrary {
  decltype(&::avfilter_get_by_name) get_by_name;
  decltype(&::avfilter_graph_alloc) graph_alloc;
  decltype(&::avfilter_graph_alloc_filter) graph_alloc_filter;
  decltype(&::avfilter_graph_create_filter) graph_create_filter;
  decltype(&::avfilter_graph_get_filter) graph_get_filter;
  decltype(&::avfilter_graph_config) graph_config;
  decltype(&::avfilter_graph_free) graph_free;
  decltype(&::avfilter_init_str) init_str;
  decltype(&::avfilter_link) link;
  decltype(&::avfilter_process_command) process_command;
  decltype(&::av_buffersrc_add_frame) buffersrc_add_frame;
  decltype(&::av_buffersrc_add_frame_flags) buffersrc_add_frame_flags;
  decltype(&::av_buffersrc_get_nb_failed_requests) buffersrc_get_nb_failed_requests;
  decltype(&::av_buffersink_get_frame) buffersink_get_frame;
  decltype(&::av_buffersink_get_samples) buffersink_get_samples;

  // The library, loaded once per process. Null when it cannot be loaded,
  // with the reason in *reason (each call that fails gives it).
  static const FilterLibrary* get(std::string* reason = nullptr);
};

// The table, for code that holds a filter graph: a graph is only ever made
// once the library is loaded.
inline const FilterLibrary& loadedFilters() {
  return *FilterLibrary::get();
}

}  // namespace vn::ff
