#include "effects/preset_image.h"

#include <memory>

#include "effects/effect_manager.h"
#include "image/image_filter.h"

std::optional<vn::FilterImage> applyEffectPreset(const std::string& name,
                                                 const vn::FilterImage& image) {
  // A copy of its own: the catalogue's filters never hold an input image,
  // and two callers must not share one.
  const std::shared_ptr<vn::ImageFilter> filter = EffectManager::filterWithName(name);
  if (!filter || !filter->setValue(vn::kInputImageKey, image))
    return std::nullopt;
  std::optional<vn::FilterImage> output = filter->outputImage();
  if (!output || image.isInfinite())
    return output;
  return output->cropped(image.extent());
}
