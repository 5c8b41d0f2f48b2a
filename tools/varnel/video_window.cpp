#include "video_window.h"

#include <SDL.h>
#include <SDL_opengl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "input.h"
#include "sdl_video.h"
#include "varnel.h"

namespace varnel_cli {

namespace {

constexpr char kStatusFont[] = "Sans 16";
constexpr double kStatusSeconds = 2.0;
// Pictures asked for or decoded ahead of the one on screen.
constexpr size_t kPicturesAhead = 2;

// SDL, once VideoWindow::open has loaded it (every window implies so).
const SdlVideo& sdl() {
  return *SdlVideo::get();
}

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
  if (sdl().GetRendererInfo(renderer, &info) != 0 || std::strncmp(info.name, "opengl", 6) != 0)
    return false;
  using GetString = const GLubyte*(APIENTRY*)(GLenum);
  const auto getString = reinterpret_cast<GetString>(sdl().GL_GetProcAddress("glGetString"));
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
  if (!SdlVideo::get(reason))
    return nullptr;
  if (sdl().InitSubSystem(SDL_INIT_VIDEO) != 0) {
    *reason = sdl().GetError();
    return nullptr;
  }
  std::unique_ptr<VideoWindow> w(new VideoWindow());
  w->movie_ = std::move(movie);
  w->pictures_ = std::make_unique<VNFFPictureQueue>(
      w->movie_, kPicturesAhead, plain ? VNFFPictureQueue::kDecoded : VNFFPictureQueue::kComposed,
      VNFFPictureQueue::kRGBA);
  w->frameSeconds_ = frameSeconds;
  w->shownW_ = width;
  w->shownH_ = height;
  const uint32_t flags =
      SDL_WINDOW_RESIZABLE | (options.fullscreen ? uint32_t{SDL_WINDOW_FULLSCREEN_DESKTOP} : 0u);
  w->window_ = sdl().CreateWindow(title.c_str(), SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED,
                                  options.width > 0 ? options.width : width,
                                  options.height > 0 ? options.height : height, flags);
  if (w->window_) {
    sdl().SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "linear");
    w->renderer_ = sdl().CreateRenderer(w->window_, -1, 0);
    if (w->renderer_ && !sdl().GetHint(SDL_HINT_RENDER_DRIVER) && rastersOnTheCpu(w->renderer_)) {
      // A GL driver that draws on the CPU (a virtual display, a machine
      // without a GPU) costs a full core at 50 pictures a second; SDL's own
      // software renderer, shown through a shared-memory image, a tenth of
      // it.
      sdl().DestroyRenderer(w->renderer_);
      sdl().SetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION, "0");
      w->renderer_ = sdl().CreateRenderer(w->window_, -1, SDL_RENDERER_SOFTWARE);
    }
  }
  if (!w->renderer_) {
    *reason = sdl().GetError();
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
  pictures_.reset();
  if (trace_)
    std::fclose(trace_);
  if (status_)
    sdl().DestroyTexture(status_);
  if (texture_)
    sdl().DestroyTexture(texture_);
  if (renderer_)
    sdl().DestroyRenderer(renderer_);
  if (window_)
    sdl().DestroyWindow(window_);
  sdl().QuitSubSystem(SDL_INIT_VIDEO);
}

std::vector<VideoWindow::Event> VideoWindow::events() {
  std::vector<Event> out;
  SDL_Event e;
  while (sdl().PollEvent(&e)) {
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
      const bool full = sdl().GetWindowFlags(window_) & SDL_WINDOW_FULLSCREEN_DESKTOP;
      sdl().SetWindowFullscreen(window_, full ? 0 : SDL_WINDOW_FULLSCREEN_DESKTOP);
    }
  }
  return out;
}

bool VideoWindow::request(int64_t index) {
  return pictures_->request(index,
                            microseconds((static_cast<double>(index) + 0.5) * frameSeconds_));
}

void VideoWindow::seeked() {
  pictures_->cancel();
  shownIndex_ = -1;
  lastRequested_ = -1;
}

int64_t VideoWindow::frameAt(double clock) const {
  // A clock on a frame's start (--start 1.001 at 29.97 fps) is that frame's,
  // though the division may fall a hair short of its number.
  constexpr double kFrameSlack = 1e-6;
  return static_cast<int64_t>(std::floor(std::max(clock, 0.0) / frameSeconds_ + kFrameSlack));
}

void VideoWindow::preroll(double clock, double seconds) {
  const int64_t frame = frameAt(clock);
  const double until = steadySeconds() + seconds;
  for (;;) {
    update(clock, 0.0);
    const int64_t missing = pictures_->missing();
    // The pictures after it are decoded too.
    const bool ready = shownIndex_ == frame && pictures_->idle();
    if (ready || (missing >= 0 && missing <= frame) || steadySeconds() > until)
      return;
    sdl().Delay(4);
  }
}

void VideoWindow::update(double clock, double rate) {
  const int64_t frame = frameAt(clock);
  // The frames that gave no picture (past the end) show nothing.
  std::vector<VNFFPictureQueue::Picture> due = pictures_->takeUntil(frame);
  std::erase_if(due, [](const VNFFPictureQueue::Picture& p) { return p.empty(); });
  const int64_t missing = pictures_->missing();
  const double latency = pictures_->latency();
  bool changed = false;
  for (size_t i = 0; i < due.size(); ++i) {
    VNFFPictureQueue::Picture& picture = due[i];
    // Only the picture of the clock's frame is shown; one whose frame has
    // passed is skipped, also right after a seek (the picture before it
    // stays until one comes in time).
    const bool show = i + 1 == due.size() && picture.key == frame;
    trace(show ? "shown" : "skipped", picture.key, clock);
    if (!show)
      continue;
    if (!texture_ || picture.width != width_ || picture.height != height_) {
      // The first picture, or one of another size (the pieces of a DVD
      // title may differ).
      if (texture_)
        sdl().DestroyTexture(texture_);
      width_ = picture.width;
      height_ = picture.height;
      texture_ = sdl().CreateTexture(renderer_, SDL_PIXELFORMAT_RGBA32, SDL_TEXTUREACCESS_STREAMING,
                                     width_, height_);
    }
    if (texture_) {
      sdl().UpdateTexture(texture_, nullptr, picture.rgba.data(), width_ * 4);
      onScreen_ = std::move(picture.rgba);
      changed = true;
    }
    // Every frame between two pictures shown was skipped (not across a
    // seek).
    if (shownIndex_ >= 0 && picture.key > shownIndex_ + 1)
      skippedCount_ += picture.key - shownIndex_ - 1;
    shownIndex_ = picture.key;
    ++shownCount_;
  }
  // Keep the decode queue busy with the next pictures, the first of them
  // the frame the clock will have reached when it is decoded (a paused
  // clock does not move: its own frame).
  const int64_t lead =
      rate > 0 ? static_cast<int64_t>(std::ceil(latency * rate / frameSeconds_)) : 0;
  for (;;) {
    const int64_t next = std::max({frame + lead, lastRequested_ + 1, shownIndex_ + 1});
    if (missing >= 0 && next >= missing)
      break;
    if (!request(next))
      break;  // kPicturesAhead are asked
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
    sdl().DestroyTexture(status_);
  status_ = nullptr;
  if (!rgba.empty()) {
    statusWidth_ = static_cast<int>(std::ceil(extent.width));
    statusHeight_ = static_cast<int>(std::ceil(extent.height));
    status_ = sdl().CreateTexture(renderer_, SDL_PIXELFORMAT_RGBA32, SDL_TEXTUREACCESS_STATIC,
                                  statusWidth_, statusHeight_);
  }
  if (status_) {
    sdl().UpdateTexture(status_, nullptr, rgba.data(), statusWidth_ * 4);
    sdl().SetTextureBlendMode(status_, SDL_BLENDMODE_BLEND);
  }
  statusUntil_ = steadySeconds() + kStatusSeconds;
  present();
}

void VideoWindow::present() {
  sdl().SetRenderDrawColor(renderer_, 0, 0, 0, 255);
  sdl().RenderClear(renderer_);
  int outW = 0, outH = 0;
  sdl().GetRendererOutputSize(renderer_, &outW, &outH);
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
    pictures_->setRenderSize(to.w, to.h);
    if (texture_ && !onScreen_.empty())
      sdl().RenderCopy(renderer_, texture_, nullptr, &to);
  }
  statusShown_ = status_ && steadySeconds() <= statusUntil_;
  if (statusShown_) {
    const SDL_Rect box{8, 8, statusWidth_ + 16, statusHeight_ + 8};
    sdl().SetRenderDrawBlendMode(renderer_, SDL_BLENDMODE_BLEND);
    sdl().SetRenderDrawColor(renderer_, 0, 0, 0, 160);
    sdl().RenderFillRect(renderer_, &box);
    const SDL_Rect text{16, 12, statusWidth_, statusHeight_};
    sdl().RenderCopy(renderer_, status_, nullptr, &text);
  }
  sdl().RenderPresent(renderer_);
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
