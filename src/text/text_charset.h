// Which charset a text file is written in, so that its text can be
// converted to UTF-8 (by iconv, under the names given here).
//
// Subtitle files come in whatever the author's system wrote: UTF-8 today,
// Windows code pages in older files. FFmpeg's text subtitle demuxers take
// UTF-8 as it is and convert UTF-16 with a byte-order mark themselves; any
// other charset has to be named to the decoder.
//
// Pure functions; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vn {

// How many of a file's first bytes are looked at.
inline constexpr size_t kCharsetProbeBytes = 64 * 1024;

// The charset to convert `bytes` (the start of a text) from, as an iconv
// name; none when no conversion is needed or none can help:
//   - valid UTF-8 (a sequence cut by the end of `bytes` counts as valid:
//     the text goes on beyond what was read);
//   - a UTF-8, UTF-16 or UTF-32 byte-order mark;
//   - NUL bytes without a byte-order mark: a binary file, such as a media
//     container, not a text.
// Otherwise the best guess of ICU's detector, however low its confidence (a
// wrong guess shows wrong accents, no guess shows nothing), among charsets
// that keep ASCII as it is (the subtitle demuxers parse the file's ASCII
// structure); WINDOWS-1252 when it has none. ISO-8859-1 is answered as
// WINDOWS-1252, its superset in practice: the curly quotes and dashes of
// real files sit in 0x80-0x9F.
std::optional<std::string> textCharset(std::string_view bytes);

// textCharset of the first kCharsetProbeBytes of the file at path; none
// when it cannot be read.
std::optional<std::string> fileCharset(const std::string& path);

// The text of a UTF-32 file with a byte-order mark (either byte order) in
// UTF-8, without the mark: FFmpeg's text demuxers read UTF-8 and UTF-16
// only. None when `bytes` has no UTF-32 mark or holds a code point that
// is not a character's (a surrogate, past U+10FFFF).
std::optional<std::string> utf32ToUtf8(std::string_view bytes);

// Whether `bytes` is UTF-8 throughout: no overlong forms, surrogates or code
// points past U+10FFFF. A sequence cut by the end of `bytes` is valid.
bool isValidUtf8(std::string_view bytes);

}  // namespace vn
