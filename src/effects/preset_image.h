// Applying an effect preset (effect_manager.h) to one picture. A still image
// on the command line and a decoded video frame take this same step, so a
// preset looks the same wherever it is used.
#pragma once

#include <optional>
#include <string>

#include "image/filter_image.h"

// The picture with the named preset applied: a fresh copy of the preset's
// filter is given the picture as its input image, and its output is cropped
// to the picture's extent (a blur or a glow spreads beyond it; an endless
// picture stays endless). Lazy: nothing is rendered. None for a name the
// catalogue does not know (names match exactly, letter case included) or a
// filter that makes no output. Any thread; every call uses its own copy.
std::optional<vn::FilterImage> applyEffectPreset(const std::string& name,
                                                 const vn::FilterImage& image);
