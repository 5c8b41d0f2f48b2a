#include "text/ass_library.h"

#include "base/dynamic_library.h"

namespace vn {

namespace {

LoadedTable<AssLibrary> load() {
  return loadTable<AssLibrary>(VARNEL_ASS_SONAME, [](AssLibrary& t, const Binder& bind) {
#define VN_BIND(name) bind("ass_" #name, &t.name)
    return VN_BIND(add_font) && VN_BIND(free_track) && VN_BIND(library_done) &&
           VN_BIND(library_init) && VN_BIND(new_track) && VN_BIND(process_chunk) &&
           VN_BIND(process_codec_private) && VN_BIND(process_force_style) &&
           VN_BIND(render_frame) && VN_BIND(renderer_done) && VN_BIND(renderer_init) &&
           VN_BIND(set_extract_fonts) && VN_BIND(set_fonts) && VN_BIND(set_frame_size) &&
           VN_BIND(set_message_cb) && VN_BIND(set_style_overrides);
#undef VN_BIND
  });
}

}  // namespace

const AssLibrary* AssLibrary::get(std::string* reason) {
  return tableOnce(&load, reason);
}

}  // namespace vn
