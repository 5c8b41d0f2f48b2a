// VNSubtitleSource: a media source classified as an external subtitle file.
// It adds nothing but isSubtitle() true. Threads as VNMediaSource.
#pragma once

#include "media/media_source.h"

class VNSubtitleSource : public VNMediaSource {
 public:
  // A subtitle source for a path (mediaWithPath, inherited, makes a plain
  // source instead).
  static std::shared_ptr<VNSubtitleSource> create(const std::string& path);

  bool isSubtitle() override;
  std::shared_ptr<VNMediaSource> copy() override;

 protected:
  VNSubtitleSource() = default;
};
