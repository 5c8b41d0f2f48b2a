#include "output/movie_file_output.h"

#include "output/frame_overlay.h"

#include <new>

#include "output/movie_file_output_internal.h"

std::shared_ptr<VNFFMovieFileOutput> VNFFMovieFileOutput::create() {
  try {
    auto internal = VNFFMovieFileOutputInternal::create();
    if (!internal)
      return nullptr;
    return std::shared_ptr<VNFFMovieFileOutput>(new VNFFMovieFileOutput(std::move(internal)));
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

VNFFMovieFileOutput::VNFFMovieFileOutput(std::shared_ptr<VNFFMovieFileOutputInternal> internal)
    : internal_(std::move(internal)) {}

VNFFMovieFileOutput::~VNFFMovieFileOutput() = default;

std::string VNFFMovieFileOutput::path() const {
  return internal_->path();
}
void VNFFMovieFileOutput::setPath(const std::string& path) {
  internal_->setPath(path);
}
VNFFMovieFileOutputFormat VNFFMovieFileOutput::movieFormat() const {
  return internal_->movieFormat();
}
void VNFFMovieFileOutput::setMovieFormat(VNFFMovieFileOutputFormat format) {
  internal_->setMovieFormat(format);
}
VNFFAudioFormat VNFFMovieFileOutput::audioInputFormat() const {
  return internal_->audioInputFormat();
}
void VNFFMovieFileOutput::setAudioInputFormat(VNFFAudioFormat format) {
  internal_->setAudioInputFormat(format);
}
VNFFAudioFormat VNFFMovieFileOutput::outputAudioFormat() const {
  return internal_->outputAudioFormat();
}
VNFFVideoFormat VNFFMovieFileOutput::outputVideoFormat() const {
  return internal_->outputVideoFormat();
}
void VNFFMovieFileOutput::openAudio() {
  internal_->openAudio();
}
void VNFFMovieFileOutput::openVideo() {
  internal_->openVideo();
}
bool VNFFMovieFileOutput::isAudioOpen() const {
  return internal_->isAudioOpen();
}
bool VNFFMovieFileOutput::isVideoOpen() const {
  return internal_->isVideoOpen();
}
bool VNFFMovieFileOutput::isMovieOpen() const {
  return internal_->isMovieOpen();
}
bool VNFFMovieFileOutput::startOutput() {
  return internal_->startOutput();
}
void VNFFMovieFileOutput::stopOutput() {
  internal_->stopOutput();
}
void VNFFMovieFileOutput::writeAudioData(const void* bytes, uint64_t length) {
  internal_->writeAudioData(bytes, length);
}
void VNFFMovieFileOutput::writeVideoFrame(const AVFrame* frame) {
  internal_->writeVideoFrame(frame, {});
}
void VNFFMovieFileOutput::writeVideoFrame(const AVFrame* frame,
                                          const std::vector<VNFFFrameOverlay>& overlays) {
  internal_->writeVideoFrame(frame, overlays);
}
bool VNFFMovieFileOutput::overlayLayout(VNFFOverlayLayout* layout) const {
  const std::optional<VNFFOverlayLayout> taken = internal_->overlayLayout();
  if (taken)
    *layout = *taken;
  return taken.has_value();
}
void VNFFMovieFileOutput::writeImage(const vn::BitmapImage& image) {
  internal_->writeImage(image);
}
void VNFFMovieFileOutput::writeImage(const vn::FilterImage& image) {
  internal_->writeImage(image);
}
void VNFFMovieFileOutput::writeCGContext(const vn::BitmapContext& context) {
  internal_->writeCGContext(context);
}
void VNFFMovieFileOutput::writeCGContext(const vn::BitmapContext& context, int32_t duration) {
  internal_->writeCGContext(context, duration);
}
std::shared_ptr<vn::BitmapContext> VNFFMovieFileOutput::createCGContext() const {
  return internal_->createCGContext();
}
void VNFFMovieFileOutput::drawImage(const vn::BitmapImage& image, vn::BitmapContext& context) {
  internal_->drawImage(image, context);
}
void VNFFMovieFileOutput::drawImage(const vn::FilterImage& image, vn::BitmapContext& context) {
  internal_->drawImage(image, context);
}
std::string VNFFMovieFileOutput::failureReason() const {
  return internal_->failureReason();
}

int VNFFMovieFileOutput::openAudioStream() {
  return internal_->openAudioStream();
}

void VNFFMovieFileOutput::writeAudioData(int stream, const void* bytes, uint64_t length) {
  internal_->writeAudioData(stream, bytes, length);
}

int VNFFMovieFileOutput::openCopiedStream(const AVCodecParameters* parameters) {
  return internal_->openCopiedStream(parameters);
}

int VNFFMovieFileOutput::openSubtitleStream(int32_t codecId,
                                            const uint8_t* header,
                                            int headerSize) {
  return internal_->openSubtitleStream(codecId, header, headerSize);
}

void VNFFMovieFileOutput::writePacket(int stream, AVPacket* packet) {
  internal_->writePacket(stream, packet);
}

void VNFFMovieFileOutput::writeSubtitle(int stream,
                                        const AVSubtitle& subtitle,
                                        int64_t start,
                                        int64_t duration) {
  internal_->writeSubtitle(stream, subtitle, start, duration);
}

void VNFFMovieFileOutput::setMetadata(const AVDictionary* tags) {
  internal_->setMetadata(tags);
}

void VNFFMovieFileOutput::addChapter(int64_t start, int64_t end, const AVDictionary* tags) {
  internal_->addChapter(start, end, tags);
}

void VNFFMovieFileOutput::setStreamTags(int stream, const AVDictionary* tags, int disposition) {
  internal_->setStreamTags(stream, tags, disposition);
}

void VNFFMovieFileOutput::setColorProperties(VNFFColorProperties colors) {
  internal_->setColorProperties(colors);
}

void VNFFMovieFileOutput::setTrimsEncoderDelay(bool value) {
  internal_->setTrimsEncoderDelay(value);
}
