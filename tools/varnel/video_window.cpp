#include "video_window.h"

#include <SDL.h>
#include <SDL_opengl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>

#include "input.h"
#include "varnel.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace varnel_cli {

namespace {

constexpr char kStatusFont[] = "Sans 16";
constexpr double kStatusSeconds = 2.0;
// Pictures asked for or decoded ahead of the one on screen.
constexpr size_t kPicturesAhead = 2;

double steadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int64_t steadyNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Whether the renderer is GL drawn by a software rasteriser (Mesa's
// llvmpipe or softpipe, or another named so). Its GL context is current
// after it is made.
bool rastersOnTheCpu(SDL_Renderer* renderer) {
  SDL_RendererInfo info{};
  if (SDL_GetRendererInfo(renderer, &info) != 0 || std::strncmp(info.name, "opengl", 6) != 0)
    return false;
  using GetString = const GLubyte*(APIENTRY*)(GLenum);
  const auto getString = reinterpret_cast<GetString>(SDL_GL_GetProcAddress("glGetString"));
  const GLubyte* name = getString ? getString(GL_RENDERER) : nullptr;
  if (!name)
    return false;
  const std::string text(reinterpret_cast<const char*>(name));
  for (const char* software : {"llvmpipe", "softpipe", "Software Rasterizer", "SWR"}) {
    if (text.find(software) != std::string::npos)
      return true;
  }
  return false;
}

}  // namespace

// The hand-over between the decode queue and the main thread.
struct VideoWindow::Shared {
  struct Picture {
    int64_t index = 0;
    int width = 0, height = 0;
    std::vector<uint8_t> rgba;
  };
  std::mutex lock;
  size_t inFlight = 0;           // pictures being decoded
  uint64_t generation = 0;       // counts seeks: older pictures are dropped
  std::deque<Picture> ready;     // decoded, in frame order
  int64_t missing = -1;          // a frame that gave no picture (past the end)
  double latency = 0.02;         // seconds from asking to having a picture, smoothed
  int screenW = 0, screenH = 0;  // the size the picture takes on screen
  vn::ff::Sws scaler;            // decode queue only

  // The picture at the size it takes on screen, so that the renderer only
  // copies it (a software renderer scales slowly). Decode queue.
  void fit(Picture& picture) {
    int w = 0, h = 0;
    {
      std::lock_guard<std::mutex> hold(lock);
      w = screenW;
      h = screenH;
    }
    if (w <= 0 || h <= 0 || (w == picture.width && h == picture.height))
      return;
    scaler.reset(sws_getCachedContext(scaler.release(), picture.width, picture.height,
                                      AV_PIX_FMT_RGBA, w, h, AV_PIX_FMT_RGBA, SWS_BILINEAR, nullptr,
                                      nullptr, nullptr));
    if (!scaler)
      return;
    std::vector<uint8_t> out(static_cast<size_t>(w) * h * 4);
    const uint8_t* from[4] = {picture.rgba.data(), nullptr, nullptr, nullptr};
    const int fromStride[4] = {picture.width * 4, 0, 0, 0};
    uint8_t* to[4] = {out.data(), nullptr, nullptr, nullptr};
    const int toStride[4] = {w * 4, 0, 0, 0};
    if (sws_scale(scaler.get(), from, fromStride, 0, picture.height, to, toStride) != h)
      return;
    picture.rgba = std::move(out);
    picture.width = w;
    picture.height = h;
  }
};

std::string VideoWindow::unavailable() {
  const char* x11 = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  if ((!x11 || !*x11) && (!wayland || !*wayland))
    return "no display (neither DISPLAY nor WAYLAND_DISPLAY is set)";
  return {};
}

std::unique_ptr<VideoWindow> VideoWindow::open(std::shared_ptr<VNFFMovie> movie,
                                               int width,
                                               int height,
                                               bool plain,
                                               double frameSeconds,
                                               const std::string& title,
                                               const Options& options,
                                               std::string* reason) {
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
    *reason = SDL_GetError();
    return nullptr;
  }
  std::unique_ptr<VideoWindow> w(new VideoWindow());
  w->movie_ = std::move(movie);
  w->shared_ = std::make_shared<Shared>();
  w->frameSeconds_ = frameSeconds;
  w->plain_ = plain;
  w->shownW_ = width;
  w->shownH_ = height;
  const uint32_t flags =
      SDL_WINDOW_RESIZABLE | (options.fullscreen ? uint32_t{SDL_WINDOW_FULLSCREEN_DESKTOP} : 0u);
  w->window_ = SDL_CreateWindow(title.c_str(), SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED,
                                options.width > 0 ? options.width : width,
                                options.height > 0 ? options.height : height, flags);
  if (w->window_) {
    SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "linear");
    w->renderer_ = SDL_CreateRenderer(w->window_, -1, 0);
    if (w->renderer_ && !SDL_GetHint(SDL_HINT_RENDER_DRIVER) && rastersOnTheCpu(w->renderer_)) {
      // A GL driver that draws on the CPU (a virtual display, a machine
      // without a GPU) costs a full core at 50 pictures a second; SDL's own
      // software renderer, shown through a shared-memory image, a tenth of
      // it.
      SDL_DestroyRenderer(w->renderer_);
      SDL_SetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION, "0");
      w->renderer_ = SDL_CreateRenderer(w->window_, -1, SDL_RENDERER_SOFTWARE);
    }
  }
  if (!w->renderer_) {
    *reason = SDL_GetError();
    return nullptr;  // the destructor closes what was opened
  }
  if (const char* trace = std::getenv("VARNEL_PLAY_TRACE"))
    w->trace_ = std::fopen(trace, "w");
  w->movie_->setOutputVideoSize({static_cast<double>(width), static_cast<double>(height)});
  w->present();
  return w;
}

VideoWindow::~VideoWindow() {
  // The pictures asked for are decoded first: a request holds the movie,
  // and the process must not end while the decode queue still composes.
  if (movie_)
    movie_->flushOperation();
  if (trace_)
    std::fclose(trace_);
  if (status_)
    SDL_DestroyTexture(status_);
  if (texture_)
    SDL_DestroyTexture(texture_);
  if (renderer_)
    SDL_DestroyRenderer(renderer_);
  if (window_)
    SDL_DestroyWindow(window_);
  SDL_QuitSubSystem(SDL_INIT_VIDEO);
}

std::vector<VideoWindow::Event> VideoWindow::events() {
  std::vector<Event> out;
  SDL_Event e;
  while (SDL_PollEvent(&e)) {
    if (e.type == SDL_QUIT) {
      out.push_back(Event::kQuit);
    } else if (e.type == SDL_WINDOWEVENT) {
      if (e.window.event == SDL_WINDOWEVENT_CLOSE)
        out.push_back(Event::kQuit);
      else
        present();  // exposed, resized, shown
    } else if (e.type == SDL_MOUSEBUTTONDOWN && e.button.clicks == 2) {
      out.push_back(Event::kFullscreen);
    } else if (e.type == SDL_KEYDOWN) {
      switch (e.key.keysym.sym) {
        case SDLK_SPACE:
          out.push_back(Event::kPause);
          break;
        case SDLK_LEFT:
          out.push_back(Event::kBack);
          break;
        case SDLK_RIGHT:
          out.push_back(Event::kForward);
          break;
        case SDLK_UP:
          out.push_back(Event::kVolumeUp);
          break;
        case SDLK_DOWN:
          out.push_back(Event::kVolumeDown);
          break;
        case SDLK_PLUS:
        case SDLK_EQUALS:
        case SDLK_KP_PLUS:
          out.push_back(Event::kFaster);
          break;
        case SDLK_MINUS:
        case SDLK_KP_MINUS:
          out.push_back(Event::kSlower);
          break;
        case SDLK_m:
          out.push_back(Event::kMute);
          break;
        case SDLK_s:
          out.push_back(Event::kSave);
          break;
        case SDLK_PERIOD:
          out.push_back(Event::kStep);
          break;
        case SDLK_f:
          out.push_back(Event::kFullscreen);
          break;
        case SDLK_q:
        case SDLK_ESCAPE:
          out.push_back(Event::kQuit);
          break;
        default:
          break;
      }
    }
  }
  for (Event event : out) {
    if (event == Event::kFullscreen) {
      const bool full = SDL_GetWindowFlags(window_) & SDL_WINDOW_FULLSCREEN_DESKTOP;
      SDL_SetWindowFullscreen(window_, full ? 0 : SDL_WINDOW_FULLSCREEN_DESKTOP);
    }
  }
  return out;
}

void VideoWindow::request(int64_t index) {
  const std::shared_ptr<Shared> shared = shared_;
  uint64_t generation = 0;
  {
    std::lock_guard<std::mutex> hold(shared->lock);
    ++shared->inFlight;
    generation = shared->generation;
  }
  const double asked = steadySeconds();
  // Everything below runs on the decode queue: the picture's pixels are
  // taken there, while they are still the decoder's.
  auto hand = [shared, generation, asked](std::optional<Shared::Picture> picture, int64_t frame) {
    if (picture)
      shared->fit(*picture);
    std::lock_guard<std::mutex> hold(shared->lock);
    --shared->inFlight;
    shared->latency = 0.8 * shared->latency + 0.2 * (steadySeconds() - asked);
    if (generation != shared->generation)
      return;
    if (picture) {
      shared->ready.push_back(std::move(*picture));
    } else {
      shared->missing = frame;
    }
  };
  auto provider = std::make_shared<VNFFMovieImageProvider>();
  if (plain_) {
    // The converted picture's own bytes: RGBA rows at the media's size.
    auto copy = std::make_shared<VNFFMovieImageProvider::DataBuffer>();
    auto format = std::make_shared<VNFFVideoFormat>();
    provider->movieFormatSize = [copy, format](VNFFMovie&, VNFFVideoFormat f, int32_t size) {
      *format = f;
      *copy = std::make_shared<std::vector<uint8_t>>(static_cast<size_t>(std::max(size, 0)));
      return *copy;
    };
    provider->movieMediaImage = [hand, copy, format, index](VNFFMovie&,
                                                            std::optional<vn::FilterImage> image) {
      const size_t bytes = static_cast<size_t>(format->width) * format->height * 4;
      if (!image || !*copy || (*copy)->size() != bytes || bytes == 0)
        return hand(std::nullopt, index);
      hand(Shared::Picture{index, format->width, format->height, std::move(**copy)}, index);
    };
  } else {
    provider->movieMediaEffectImage = [hand, index](VNFFMovie&,
                                                    std::optional<vn::FilterImage> image) {
      const vn::Rect extent = image ? image->extent() : vn::Rect{};
      std::vector<uint8_t> rgba = image ? image->render(extent) : std::vector<uint8_t>{};
      if (rgba.empty())
        return hand(std::nullopt, index);
      hand(Shared::Picture{index, static_cast<int>(extent.width), static_cast<int>(extent.height),
                           std::move(rgba)},
           index);
    };
  }
  movie_->decodeImageAtTime(microseconds((static_cast<double>(index) + 0.5) * frameSeconds_),
                            provider, false);
}

void VideoWindow::seeked() {
  std::lock_guard<std::mutex> hold(shared_->lock);
  ++shared_->generation;
  shared_->ready.clear();
  shared_->missing = -1;
  shownIndex_ = -1;
  lastRequested_ = -1;
}

int64_t VideoWindow::frameAt(double clock) const {
  return static_cast<int64_t>(std::floor(std::max(clock, 0.0) / frameSeconds_));
}

void VideoWindow::preroll(double clock, double seconds) {
  const int64_t frame = frameAt(clock);
  const double until = steadySeconds() + seconds;
  for (;;) {
    update(clock, 0.0);
    int64_t missing = -1;
    size_t inFlight = 0;
    {
      std::lock_guard<std::mutex> hold(shared_->lock);
      missing = shared_->missing;
      inFlight = shared_->inFlight;
    }
    // The pictures after it are decoded too.
    const bool ready = shownIndex_ == frame && inFlight == 0;
    if (ready || (missing >= 0 && missing <= frame) || steadySeconds() > until)
      return;
    SDL_Delay(4);
  }
}

void VideoWindow::update(double clock, double rate) {
  const int64_t frame = frameAt(clock);
  std::vector<Shared::Picture> due;
  size_t pending = 0;
  int64_t missing = -1;
  double latency = 0;
  {
    std::lock_guard<std::mutex> hold(shared_->lock);
    while (!shared_->ready.empty() && shared_->ready.front().index <= frame) {
      due.push_back(std::move(shared_->ready.front()));
      shared_->ready.pop_front();
    }
    pending = shared_->inFlight + shared_->ready.size();
    missing = shared_->missing;
    latency = shared_->latency;
  }
  bool changed = false;
  for (size_t i = 0; i < due.size(); ++i) {
    Shared::Picture& picture = due[i];
    // Only the picture of the clock's frame is shown; one whose frame has
    // passed is skipped, also right after a seek (the picture before it
    // stays until one comes in time).
    const bool show = i + 1 == due.size() && picture.index == frame;
    trace(show ? "shown" : "skipped", picture.index, clock);
    if (!show)
      continue;
    if (!texture_ || picture.width != width_ || picture.height != height_) {
      // The first picture, or one of another size (the pieces of a DVD
      // title may differ).
      if (texture_)
        SDL_DestroyTexture(texture_);
      width_ = picture.width;
      height_ = picture.height;
      texture_ = SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_RGBA32, SDL_TEXTUREACCESS_STREAMING,
                                   width_, height_);
    }
    if (texture_) {
      SDL_UpdateTexture(texture_, nullptr, picture.rgba.data(), width_ * 4);
      onScreen_ = std::move(picture.rgba);
      changed = true;
    }
    // Every frame between two pictures shown was skipped (not across a
    // seek).
    if (shownIndex_ >= 0 && picture.index > shownIndex_ + 1)
      skippedCount_ += picture.index - shownIndex_ - 1;
    shownIndex_ = picture.index;
    ++shownCount_;
  }
  // Keep the decode queue busy with the next pictures, the first of them
  // the frame the clock will have reached when it is decoded (a paused
  // clock does not move: its own frame).
  const int64_t lead =
      rate > 0 ? static_cast<int64_t>(std::ceil(latency * rate / frameSeconds_)) : 0;
  for (; pending < kPicturesAhead; ++pending) {
    const int64_t next = std::max({frame + lead, lastRequested_ + 1, shownIndex_ + 1});
    if (next == missing || (missing >= 0 && next > missing))
      break;
    request(next);
    lastRequested_ = next;
  }
  if (statusShown_ && steadySeconds() > statusUntil_)
    changed = true;
  if (changed)
    present();
}

void VideoWindow::trace(const char* what, int64_t index, double clock) {
  if (!trace_)
    return;
  std::fprintf(trace_, "%lld %s %lld %.6f %.6f\n", static_cast<long long>(steadyNanoseconds()),
               what, static_cast<long long>(index), static_cast<double>(index) * frameSeconds_,
               clock);
}

void VideoWindow::showStatus(const std::string& text) {
  const vn::FilterImage image = vn::textImage(text, kStatusFont, {1, 1, 1, 1});
  const vn::Rect extent = image.extent();
  const std::vector<uint8_t> rgba = image.render(extent);
  if (status_)
    SDL_DestroyTexture(status_);
  status_ = nullptr;
  if (!rgba.empty()) {
    statusWidth_ = static_cast<int>(std::ceil(extent.width));
    statusHeight_ = static_cast<int>(std::ceil(extent.height));
    status_ = SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_RGBA32, SDL_TEXTUREACCESS_STATIC,
                                statusWidth_, statusHeight_);
  }
  if (status_) {
    SDL_UpdateTexture(status_, nullptr, rgba.data(), statusWidth_ * 4);
    SDL_SetTextureBlendMode(status_, SDL_BLENDMODE_BLEND);
  }
  statusUntil_ = steadySeconds() + kStatusSeconds;
  present();
}

void VideoWindow::present() {
  SDL_SetRenderDrawColor(renderer_, 0, 0, 0, 255);
  SDL_RenderClear(renderer_);
  int outW = 0, outH = 0;
  SDL_GetRendererOutputSize(renderer_, &outW, &outH);
  if (outW > 0 && outH > 0) {
    // The whole picture, its aspect kept, centred; pictures to come are
    // made that size.
    const double scale =
        std::min(static_cast<double>(outW) / shownW_, static_cast<double>(outH) / shownH_);
    SDL_Rect to;
    to.w = std::max(1, static_cast<int>(std::lround(shownW_ * scale)));
    to.h = std::max(1, static_cast<int>(std::lround(shownH_ * scale)));
    to.x = (outW - to.w) / 2;
    to.y = (outH - to.h) / 2;
    {
      std::lock_guard<std::mutex> hold(shared_->lock);
      shared_->screenW = to.w;
      shared_->screenH = to.h;
    }
    if (texture_ && !onScreen_.empty())
      SDL_RenderCopy(renderer_, texture_, nullptr, &to);
  }
  statusShown_ = status_ && steadySeconds() <= statusUntil_;
  if (statusShown_) {
    const SDL_Rect box{8, 8, statusWidth_ + 16, statusHeight_ + 8};
    SDL_SetRenderDrawBlendMode(renderer_, SDL_BLENDMODE_BLEND);
    SDL_SetRenderDrawColor(renderer_, 0, 0, 0, 160);
    SDL_RenderFillRect(renderer_, &box);
    const SDL_Rect text{16, 12, statusWidth_, statusHeight_};
    SDL_RenderCopy(renderer_, status_, nullptr, &text);
  }
  SDL_RenderPresent(renderer_);
}

bool VideoWindow::savePicture(const std::string& path, std::string* reason) const {
  if (onScreen_.empty()) {
    *reason = "no picture is on screen yet";
    return false;
  }
  std::optional<vn::FilterImage> image = vn::FilterImage::fromRaster(
      onScreen_.data(), width_, height_, width_ * 4, vn::FilterImage::ByteOrder::RGBA);
  if (!image) {
    *reason = "the picture cannot be read";
    return false;
  }
  return image->writeToFile(path, reason);
}

}  // namespace varnel_cli
