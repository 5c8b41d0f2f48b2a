#include "media/subtitle_source.h"

std::shared_ptr<VNSubtitleSource> VNSubtitleSource::create(const std::string& path) {
  std::shared_ptr<VNSubtitleSource> source(new VNSubtitleSource());
  source->setFullpath(path);
  return source;
}

bool VNSubtitleSource::isSubtitle() {
  return true;
}

std::shared_ptr<VNMediaSource> VNSubtitleSource::copy() {
  std::shared_ptr<VNSubtitleSource> copy(new VNSubtitleSource());
  copyFieldsTo(*copy);
  return copy;
}
