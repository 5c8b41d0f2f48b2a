#include "image/image_filter.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <numbers>
#include <type_traits>

#include "image/srgb.h"

namespace vn {
namespace {

using Color = FilterImage::Color;

// ---- values ------------------------------------------------------------------

// Kind is the index of the alternative a value of that kind holds.
template <ImageFilter::Kind kind, typename T>
constexpr bool kKindHolds =
    std::is_same_v<std::variant_alternative_t<static_cast<size_t>(kind), FilterValue>, T>;
static_assert(kKindHolds<ImageFilter::Kind::Number, double> &&
              kKindHolds<ImageFilter::Kind::Vector, FilterVector> &&
              kKindHolds<ImageFilter::Kind::Color, Color> &&
              kKindHolds<ImageFilter::Kind::Image, FilterImage> &&
              kKindHolds<ImageFilter::Kind::Filters, FilterList>);

bool isFinite(const FilterValue& v) {
  if (const double* d = std::get_if<double>(&v))
    return std::isfinite(*d);
  if (const FilterVector* p = std::get_if<FilterVector>(&v))
    return std::isfinite(p->x) && std::isfinite(p->y) && std::isfinite(p->z);
  if (const Color* c = std::get_if<Color>(&v))
    return std::isfinite(c->red) && std::isfinite(c->green) && std::isfinite(c->blue) &&
           std::isfinite(c->alpha);
  return true;
}

// A list whose filters are copies, so that the new owner can give them
// inputs without touching the original's.
FilterList copiedList(const FilterList& list) {
  FilterList out;
  out.reserve(list.size());
  for (const auto& filter : list) {
    if (!filter)
      continue;
    if (std::shared_ptr<ImageFilter> c = filter->copy())
      out.push_back(std::move(c));
  }
  return out;
}

// Shortest text that reads back as the value; numbers that came in as
// floats print as the float they were ("0.00949", not 0.009490000158...).
std::string numberText(double v) {
  char buf[64];
  std::to_chars_result r;
  const float f = static_cast<float>(v);
  if (std::isfinite(f) && static_cast<double>(f) == v)
    r = std::to_chars(buf, buf + sizeof buf, f);
  else
    r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

// ---- built-in filters ------------------------------------------------------------

constexpr double kLuma[3] = {0.2125, 0.7154, 0.0721};

// Below this standard deviation a Gaussian is the identity.
constexpr double kMinSigma = 0.16;

struct InputDecl {
  const char* key;
  ImageFilter::Kind kind;
  FilterValue def;
};

// The current inputs of a built-in filter, by key.
class Inputs {
 public:
  Inputs(const std::vector<InputDecl>& decls, std::vector<FilterValue> values)
      : decls_(decls), values_(std::move(values)) {}

  double number(const char* key) const { return std::get<double>(at(key)); }
  FilterVector vector(const char* key) const { return std::get<FilterVector>(at(key)); }
  Color color(const char* key) const { return std::get<Color>(at(key)); }
  const FilterImage* image(const char* key) const { return std::get_if<FilterImage>(&at(key)); }

 private:
  const FilterValue& at(const char* key) const {
    for (size_t i = 0; i < decls_.size(); ++i) {
      if (std::string_view(decls_[i].key) == key)
        return values_[i];
    }
    static const FilterValue none;
    return none;
  }

  const std::vector<InputDecl>& decls_;
  std::vector<FilterValue> values_;
};

struct Definition {
  const char* name;
  const char* displayName;
  std::vector<std::string> categories;
  std::vector<InputDecl> inputs;
  // The output for the inputs; the input image is present when called.
  std::optional<FilterImage> (*apply)(const FilterImage& in, const Inputs& inputs);
};

using Matrix = double[3][4];

ColorMatrixOp toOp(const Matrix& m) {
  ColorMatrixOp op;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 4; ++j)
      op.m[i][j] = static_cast<float>(m[i][j]);
  }
  return op;
}

// mix(I, s, t) without offsets: the identity moved a fraction t toward s.
ColorMatrixOp mixedWithIdentity(const double s[3][3], double t) {
  Matrix m = {};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j)
      m[i][j] = (i == j ? 1 - t : 0) + t * s[i][j];
  }
  return toOp(m);
}

float linearComponent(double srgb) {
  return static_cast<float>(srgbEotf(srgb));
}

// Saturation, then brightness, then contrast, all affine, so folded into
// one matrix: c' = k·(s·c + (1 − s)·Y(c) + b − 0.5) + 0.5.
std::optional<FilterImage> colorControls(const FilterImage& in, const Inputs& p) {
  const double s = p.number(kInputSaturationKey);
  const double b = p.number(kInputBrightnessKey);
  const double k = p.number(kInputContrastKey);
  if (s == 1 && b == 0 && k == 1)
    return in;
  Matrix m = {};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j)
      m[i][j] = k * ((i == j ? s : 0) + (1 - s) * kLuma[j]);
    m[i][3] = k * b + 0.5 * (1 - k);
  }
  return in.applying(toOp(m));
}

// A rotation of the colour cube about its grey diagonal (Rodrigues'
// formula about n = (1, 1, 1)/√3); positive angles turn red toward green.
std::optional<FilterImage> hueAdjust(const FilterImage& in, const Inputs& p) {
  const double theta = p.number(kInputAngleKey);
  if (theta == 0)
    return in;
  const double cs = std::cos(theta);
  const double a = (1 - cs) / 3;
  const double q = std::sin(theta) / std::numbers::sqrt3;
  const Matrix m = {
      {cs + a, a - q, a + q, 0}, {a + q, cs + a, a - q, 0}, {a - q, a + q, cs + a, 0}};
  return in.applying(toOp(m));
}

// 1 − c on linear, unpremultiplied colour (the renderer divides alpha out
// around point operations), so half-covered pixels invert like opaque ones.
std::optional<FilterImage> colorInvert(const FilterImage& in, const Inputs&) {
  const Matrix m = {{-1, 0, 0, 1}, {0, -1, 0, 1}, {0, 0, -1, 1}};
  return in.applying(toOp(m));
}

// A scale of 2^EV in linear light, as a change of exposure is.
std::optional<FilterImage> exposureAdjust(const FilterImage& in, const Inputs& p) {
  const double ev = p.number(kInputEVKey);
  if (ev == 0)
    return in;
  const double g = std::exp2(ev);
  const Matrix m = {{g, 0, 0, 0}, {0, g, 0, 0}, {0, 0, g, 0}};
  return in.applying(toOp(m));
}

// The usual sepia matrix, mixed with the input by intensity; values above 1
// stay until the output is encoded.
std::optional<FilterImage> sepiaTone(const FilterImage& in, const Inputs& p) {
  const double t = p.number(kInputIntensityKey);
  if (t == 0)
    return in;
  static constexpr double kSepia[3][3] = {
      {0.393, 0.769, 0.189}, {0.349, 0.686, 0.168}, {0.272, 0.534, 0.131}};
  return in.applying(mixedWithIdentity(kSepia, t));
}

// Grey by luma, overlay-blended with the colour (linearised like any
// pixel), mixed with the input by intensity; the colour's alpha is unused.
std::optional<FilterImage> colorMonochrome(const FilterImage& in, const Inputs& p) {
  const double t = p.number(kInputIntensityKey);
  if (t == 0)
    return in;
  const Color c = p.color(kInputColorKey);
  MonochromeOp op;
  op.color[0] = linearComponent(c.red);
  op.color[1] = linearComponent(c.green);
  op.color[2] = linearComponent(c.blue);
  op.intensity = static_cast<float>(t);
  return in.applying(op);
}

// A diffuse spotlight on the flat picture; positions in picture space.
std::optional<FilterImage> spotLight(const FilterImage& in, const Inputs& p) {
  const FilterVector pos = p.vector(kInputLightPositionKey);
  const FilterVector at = p.vector(kInputLightPointsAtKey);
  const Color c = p.color(kInputColorKey);
  SpotLightOp op;
  op.position[0] = pos.x;
  op.position[1] = pos.y;
  op.position[2] = pos.z;
  op.pointsAt[0] = at.x;
  op.pointsAt[1] = at.y;
  op.pointsAt[2] = at.z;
  op.brightness = p.number(kInputBrightnessKey);
  // The beam's exponent is 1/concentration: zero or less has no meaning.
  op.concentration = std::max(p.number(kInputConcentrationKey), 0.001);
  op.color[0] = linearComponent(c.red);
  op.color[1] = linearComponent(c.green);
  op.color[2] = linearComponent(c.blue);
  return in.applying(op);
}

// A line halftone whose white share follows linear luma; the lines pass
// through the centre.
std::optional<FilterImage> lineScreen(const FilterImage& in, const Inputs& p) {
  const FilterVector centre = p.vector(kInputCenterKey);
  LineScreenOp op;
  op.center[0] = centre.x;
  op.center[1] = centre.y;
  op.angle = p.number(kInputAngleKey);
  // Narrower than a pixel the screen would only alias.
  op.width = std::max(p.number(kInputWidthKey), 1.0);
  op.sharpness = p.number(kInputSharpnessKey);
  return in.applying(op);
}

// The radius is the standard deviation. Outside the picture reads
// transparent, so edges fade and the extent grows by the kernel's reach.
std::optional<FilterImage> gaussianBlur(const FilterImage& in, const Inputs& p) {
  const double sigma = p.number(kInputRadiusKey);
  if (!(sigma >= kMinSigma))
    return in;
  return in.applying(GaussianBlurOp{sigma, false});
}

// Unsharp masking of luma only: the same detail added to r, g and b keeps
// the chroma.
std::optional<FilterImage> sharpenLuminance(const FilterImage& in, const Inputs& p) {
  const double sharpness = p.number(kInputSharpnessKey);
  const double sigma = p.number(kInputRadiusKey);
  // No detail is found when the blur is the identity.
  if (sharpness == 0 || !(sigma >= kMinSigma))
    return in;
  return in.applying(SharpenLuminanceOp{sharpness, sigma});
}

// A blurred copy screen-blended (bloom) or multiplied (gloom) with the
// picture, mixed in by intensity; the extent stays.
std::optional<FilterImage> glow(const FilterImage& in, const Inputs& p, bool gloom) {
  const double intensity = p.number(kInputIntensityKey);
  if (intensity == 0)
    return in;
  return in.applying(GlowOp{std::max(p.number(kInputRadiusKey), 0.0), intensity, gloom});
}

// Hexagonal cells of width `scale` around the centre, each the mean of the
// pixels it covers.
std::optional<FilterImage> hexagonalPixellate(const FilterImage& in, const Inputs& p) {
  const FilterVector centre = p.vector(kInputCenterKey);
  HexagonalPixellateOp op;
  op.center[0] = centre.x;
  op.center[1] = centre.y;
  op.scale = std::max(p.number(kInputScaleKey), 1.0);
  return in.applying(op);
}

// The input image laid over (or kept inside) the background; no output
// without both.
std::optional<FilterImage> sourceOver(const FilterImage& in, const Inputs& p) {
  const FilterImage* background = p.image(kInputBackgroundImageKey);
  if (!background)
    return std::nullopt;
  return in.sourceOver(*background);
}

std::optional<FilterImage> sourceIn(const FilterImage& in, const Inputs& p) {
  const FilterImage* background = p.image(kInputBackgroundImageKey);
  if (!background)
    return std::nullopt;
  return in.sourceIn(*background);
}

using K = ImageFilter::Kind;

const InputDecl kImageInput{kInputImageKey, K::Image, {}};

InputDecl number(const char* key, double def) {
  return {key, K::Number, def};
}

InputDecl vector2(const char* key, double x, double y) {
  return {key, K::Vector, FilterVector::xy(x, y)};
}

InputDecl vector3(const char* key, double x, double y, double z) {
  return {key, K::Vector, FilterVector::xyz(x, y, z)};
}

InputDecl color(const char* key, double r, double g, double b) {
  return {key, K::Color, Color{r, g, b, 1}};
}

std::vector<std::string> categories(const char* first, bool pointFilter) {
  std::vector<std::string> out = {first, kCategoryVideo, kCategoryStillImage};
  if (pointFilter) {
    out.push_back(kCategoryInterlaced);
    out.push_back(kCategoryNonSquarePixels);
  }
  out.push_back(kCategoryBuiltIn);
  return out;
}

const std::vector<Definition>& definitions() {
  static const std::vector<Definition> defs = {
      {"ColorControls",
       "Color Controls",
       categories(kCategoryColorAdjustment, true),
       {kImageInput, number(kInputSaturationKey, 1), number(kInputBrightnessKey, 0),
        number(kInputContrastKey, 1)},
       colorControls},
      {"HueAdjust",
       "Hue Adjust",
       categories(kCategoryColorAdjustment, true),
       {kImageInput, number(kInputAngleKey, 0)},
       hueAdjust},
      {"ColorInvert",
       "Color Invert",
       categories(kCategoryColorEffect, true),
       {kImageInput},
       colorInvert},
      {"ExposureAdjust",
       "Exposure Adjust",
       categories(kCategoryColorAdjustment, true),
       {kImageInput, number(kInputEVKey, 0)},
       exposureAdjust},
      {"GaussianBlur",
       "Gaussian Blur",
       categories(kCategoryBlur, false),
       {kImageInput, number(kInputRadiusKey, 10)},
       gaussianBlur},
      {"SharpenLuminance",
       "Sharpen Luminance",
       categories(kCategorySharpen, false),
       {kImageInput, number(kInputSharpnessKey, 0.4), number(kInputRadiusKey, 1.69)},
       sharpenLuminance},
      {"SpotLight",
       "Spot Light",
       categories(kCategoryStylize, false),
       {kImageInput, vector3(kInputLightPositionKey, 400, 600, 150),
        vector3(kInputLightPointsAtKey, 200, 200, 0), number(kInputBrightnessKey, 3),
        number(kInputConcentrationKey, 0.1), color(kInputColorKey, 1, 1, 1)},
       spotLight},
      {"LineScreen",
       "Line Screen",
       categories(kCategoryHalftoneEffect, false),
       {kImageInput, vector2(kInputCenterKey, 150, 150), number(kInputAngleKey, 0),
        number(kInputWidthKey, 6), number(kInputSharpnessKey, 0.7)},
       lineScreen},
      {"ColorMonochrome",
       "Color Monochrome",
       categories(kCategoryColorEffect, true),
       {kImageInput, color(kInputColorKey, 0.6, 0.45, 0.3), number(kInputIntensityKey, 1)},
       colorMonochrome},
      {"SepiaTone",
       "Sepia Tone",
       categories(kCategoryColorEffect, true),
       {kImageInput, number(kInputIntensityKey, 1)},
       sepiaTone},
      {"Gloom",
       "Gloom",
       categories(kCategoryStylize, false),
       {kImageInput, number(kInputRadiusKey, 10), number(kInputIntensityKey, 0.5)},
       [](const FilterImage& in, const Inputs& p) { return glow(in, p, true); }},
      {"Bloom",
       "Bloom",
       categories(kCategoryStylize, false),
       {kImageInput, number(kInputRadiusKey, 10), number(kInputIntensityKey, 0.5)},
       [](const FilterImage& in, const Inputs& p) { return glow(in, p, false); }},
      {"HexagonalPixellate",
       "Hexagonal Pixellate",
       categories(kCategoryStylize, false),
       {kImageInput, vector2(kInputCenterKey, 150, 150), number(kInputScaleKey, 8)},
       hexagonalPixellate},
      {"SourceOverCompositing",
       "Source Over Compositing",
       categories(kCategoryCompositeOperation, false),
       {kImageInput, {kInputBackgroundImageKey, K::Image, {}}},
       sourceOver},
      {"SourceInCompositing",
       "Source In Compositing",
       categories(kCategoryCompositeOperation, false),
       {kImageInput, {kInputBackgroundImageKey, K::Image, {}}},
       sourceIn},
  };
  return defs;
}

class BuiltinFilter : public ImageFilter {
 public:
  explicit BuiltinFilter(const Definition& def) : ImageFilter(def.name), def_(def) {
    for (const InputDecl& decl : def.inputs)
      declareInput(decl.key, decl.kind, decl.def);
  }
  BuiltinFilter(const BuiltinFilter& other) = default;

  std::optional<FilterImage> outputImage() const override {
    const Inputs inputs(def_.inputs, snapshot());
    const FilterImage* in = inputs.image(kInputImageKey);
    if (!in)
      return std::nullopt;
    return def_.apply(*in, inputs);
  }

  std::shared_ptr<ImageFilter> copy() const override {
    return std::make_shared<BuiltinFilter>(*this);
  }

 private:
  const Definition& def_;  // one of definitions(), which live for the process
};

// ---- the registry ----------------------------------------------------------------

struct Registration {
  ImageFilter::Constructor constructor;
  FilterAttributes attributes;
};

class Registry {
 public:
  static Registry& instance() {
    static Registry registry;
    return registry;
  }

  std::mutex lock;
  // Guarded by lock.
  std::map<std::string, Registration> entries;

 private:
  // The built-in filters are entered here, during the registry's own
  // (thread-safe) initialisation, so no caller sees it without them.
  Registry() {
    for (const Definition& def : definitions()) {
      entries[def.name] = {
          [&def](const std::string&) { return std::make_shared<BuiltinFilter>(def); },
          {def.displayName, def.categories}};
    }
  }
};

}  // namespace

// ---- ImageFilter -------------------------------------------------------------------

std::shared_ptr<ImageFilter> ImageFilter::withName(const std::string& name) {
  Registry& registry = Registry::instance();
  Constructor constructor;
  {
    std::lock_guard<std::mutex> hold(registry.lock);
    auto it = registry.entries.find(name);
    if (it == registry.entries.end())
      return nullptr;
    constructor = it->second.constructor;
  }
  return constructor ? constructor(name) : nullptr;
}

void ImageFilter::registerFilter(const std::string& name,
                                 Constructor constructor,
                                 FilterAttributes attributes) {
  Registry& registry = Registry::instance();
  std::lock_guard<std::mutex> hold(registry.lock);
  registry.entries[name] = {std::move(constructor), std::move(attributes)};
}

std::optional<FilterAttributes> ImageFilter::attributesForName(const std::string& name) {
  Registry& registry = Registry::instance();
  std::lock_guard<std::mutex> hold(registry.lock);
  auto it = registry.entries.find(name);
  if (it == registry.entries.end())
    return std::nullopt;
  return it->second.attributes;
}

std::vector<std::string> ImageFilter::filterNames() {
  Registry& registry = Registry::instance();
  std::lock_guard<std::mutex> hold(registry.lock);
  std::vector<std::string> names;
  names.reserve(registry.entries.size());
  for (const auto& entry : registry.entries)
    names.push_back(entry.first);
  return names;
}

ImageFilter::ImageFilter(std::string name) : name_(std::move(name)) {}

ImageFilter::ImageFilter(const ImageFilter& other) : name_(other.name_) {
  {
    std::lock_guard<std::mutex> hold(other.lock_);
    inputs_ = other.inputs_;
    nextSetOrder_ = other.nextSetOrder_;
  }
  // Copied outside the lock: a listed filter may take its own locks.
  for (Input& input : inputs_) {
    for (FilterValue* v : {&input.value, &input.def}) {
      if (FilterList* list = std::get_if<FilterList>(v))
        *list = copiedList(*list);
    }
  }
}

ImageFilter::~ImageFilter() = default;

void ImageFilter::declareInput(const std::string& key, Kind kind, FilterValue def) {
  if (kind == Kind::Image)
    def = std::monostate();
  std::lock_guard<std::mutex> hold(lock_);
  inputs_.push_back(Input{key, kind, def, def});
}

bool ImageFilter::setValue(const std::string& key, FilterValue value) {
  std::lock_guard<std::mutex> hold(lock_);
  for (Input& input : inputs_) {
    if (input.key != key)
      continue;
    if (std::holds_alternative<std::monostate>(value)) {
      input.value = input.def;
      input.set = false;
      return true;
    }
    if (value.index() != static_cast<size_t>(input.kind) || !isFinite(value))
      return false;
    input.value = std::move(value);
    if (!input.set)
      input.setOrder = nextSetOrder_++;
    input.set = true;
    return true;
  }
  return false;
}

FilterValue ImageFilter::value(const std::string& key) const {
  std::lock_guard<std::mutex> hold(lock_);
  for (const Input& input : inputs_) {
    if (input.key == key)
      return input.value;
  }
  return {};
}

std::vector<std::string> ImageFilter::inputKeys() const {
  std::lock_guard<std::mutex> hold(lock_);
  std::vector<std::string> keys;
  keys.reserve(inputs_.size());
  for (const Input& input : inputs_)
    keys.push_back(input.key);
  return keys;
}

std::vector<std::pair<std::string, FilterValue>> ImageFilter::parameters() const {
  std::vector<const Input*> set;
  std::lock_guard<std::mutex> hold(lock_);
  for (const Input& input : inputs_) {
    if (input.set)
      set.push_back(&input);
  }
  std::sort(set.begin(), set.end(),
            [](const Input* a, const Input* b) { return a->setOrder < b->setOrder; });
  std::vector<std::pair<std::string, FilterValue>> out;
  out.reserve(set.size());
  for (const Input* input : set)
    out.emplace_back(input->key, input->value);
  return out;
}

std::vector<FilterValue> ImageFilter::snapshot() const {
  std::lock_guard<std::mutex> hold(lock_);
  std::vector<FilterValue> values;
  values.reserve(inputs_.size());
  for (const Input& input : inputs_)
    values.push_back(input.value);
  return values;
}

std::string ImageFilter::describeValue(const FilterValue& value) {
  struct Visitor {
    std::string operator()(std::monostate) const { return "none"; }
    std::string operator()(double d) const { return numberText(d); }
    std::string operator()(const FilterVector& v) const {
      std::string s = "(" + numberText(v.x) + ", " + numberText(v.y);
      if (v.count > 2)
        s += ", " + numberText(v.z);
      return s + ")";
    }
    std::string operator()(const Color& c) const {
      return "(" + numberText(c.red) + ", " + numberText(c.green) + ", " + numberText(c.blue) +
             ", " + numberText(c.alpha) + ")";
    }
    std::string operator()(const FilterImage& image) const {
      const Rect e = image.extent();
      if (image.isInfinite())
        return "image (endless)";
      return "image (" + numberText(e.x) + ", " + numberText(e.y) + ", " + numberText(e.width) +
             ", " + numberText(e.height) + ")";
    }
    std::string operator()(const FilterList& list) const {
      std::string s = "[";
      for (size_t i = 0; i < list.size(); ++i) {
        if (i > 0)
          s += ", ";
        s += list[i] ? list[i]->describe() : "none";
      }
      return s + "]";
    }
  };
  return std::visit(Visitor{}, value);
}

std::string ImageFilter::describe() const {
  std::string s = name_;
  for (const auto& [key, value] : parameters())
    s += " " + key + "=" + describeValue(value);
  return s;
}

}  // namespace vn
