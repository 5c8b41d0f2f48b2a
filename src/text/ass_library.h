// libass, loaded the first time a styled subtitle is drawn.
//
// Most runs draw none; a one-picture command should not pay for mapping
// and relocating it at start.
//
// Threads: get() may be called from any thread; the table never changes
// once made.
#pragma once

#include <string>

extern "C" {
#include <ass/ass.h>
}

namespace vn {

struct AssLibrary {
  decltype(&::ass_add_font) add_font;
  decltype(&::ass_free_track) free_track;
  decltype(&::ass_library_done) library_done;
  decltype(&::ass_library_init) library_init;
  decltype(&::ass_new_track) new_track;
  decltype(&::ass_process_chunk) process_chunk;
  decltype(&::ass_process_codec_private) process_codec_private;
  decltype(&::ass_process_force_style) process_force_style;
  decltype(&::ass_render_frame) render_frame;
  decltype(&::ass_renderer_done) renderer_done;
  decltype(&::ass_renderer_init) renderer_init;
  decltype(&::ass_set_extract_fonts) set_extract_fonts;
  decltype(&::ass_set_fonts) set_fonts;
  decltype(&::ass_set_frame_size) set_frame_size;
  decltype(&::ass_set_message_cb) set_message_cb;
  decltype(&::ass_set_style_overrides) set_style_overrides;

  // The library, loaded once per process. Null when it cannot be loaded,
  // with the reason in *reason (each call that fails gives it).
  static const AssLibrary* get(std::string* reason = nullptr);
};

}  // namespace vn
