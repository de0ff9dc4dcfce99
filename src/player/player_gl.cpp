// The OpenGL path of the player: context, entry points, shaders, plane textures and drawing.
#include "player/player_gl.h"

#define GL_GLEXT_PROTOTYPES 1
#include <SDL.h>
#include <SDL_opengl.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "player/player_picture.h"
#include "process/hdr_colour.h"
#include "velmo_frame.h"

namespace {

// The entry points the player uses, each loaded through SDL_GL_GetProcAddress. The prototypes
// only give the types; nothing links against the GL library.
#define PLAYER_GL_FUNCTIONS(X)                                                                   \
  X(ActiveTexture) X(AttachShader) X(BindBuffer) X(BindBufferBase) X(BindTexture)               \
  X(BindVertexArray) X(BlendFunc) X(BufferData) X(Clear) X(ClearColor) X(CompileShader)         \
  X(CreateProgram) X(CreateShader) X(DeleteBuffers) X(DeleteProgram) X(DeleteShader)            \
  X(DeleteTextures) X(DeleteVertexArrays) X(Disable) X(DrawArrays) X(Enable) X(Finish)          \
  X(GenBuffers) X(GenTextures) X(GenVertexArrays) X(GetError) X(GetProgramiv)                   \
  X(GetShaderInfoLog) X(GetShaderiv) X(GetUniformBlockIndex) X(GetUniformLocation)              \
  X(LinkProgram) X(PixelStorei) X(ReadBuffer) X(ReadPixels) X(ShaderSource) X(TexImage2D)       \
  X(TexParameteri) X(TexSubImage2D) X(Uniform1i) X(Uniform4f) X(UniformBlockBinding)            \
  X(UseProgram) X(Viewport)

struct GlFunctions {
#define PLAYER_GL_MEMBER(name) decltype(&::gl##name) name = nullptr;
  PLAYER_GL_FUNCTIONS(PLAYER_GL_MEMBER)
#undef PLAYER_GL_MEMBER
};

bool LoadFunctions(GlFunctions* f) {
  bool all = true;
#define PLAYER_GL_LOAD(name)                                                       \
  f->name = reinterpret_cast<decltype(f->name)>(SDL_GL_GetProcAddress("gl" #name)); \
  all = all && f->name != nullptr;
  PLAYER_GL_FUNCTIONS(PLAYER_GL_LOAD)
#undef PLAYER_GL_LOAD
  return all;
}

// One quad from the Rect uniform (left, top, right, bottom in clip space), drawn as a strip of
// four vertices without vertex data; Uv runs from the top-left corner (0, 0).
constexpr const char* QuadVertexShader = R"(#version 330 core
uniform vec4 Rect;
out vec2 Uv;
void main() {
  vec2 corner = vec2(float(gl_VertexID & 1), float(gl_VertexID >> 1));
  Uv = corner;
  gl_Position = vec4(mix(Rect.x, Rect.z, corner.x), mix(Rect.y, Rect.w, corner.y), 0.0, 1.0);
}
)";

// The frame: each window pixel takes the frame pixel it lies on. Standard frames convert as
// the copy-out does: chroma upsampled 3 to 1 both ways from the nearer neighbours, the colour
// table's rows applied, a 2 x 2 ordered dither in 1/2048 steps, then the cut to 8 bits. Wide-
// range frames go from I-Ct-Cp through the ST 2084 curve to linear light, are scaled by the
// exposure, fitted to the display by the look and encoded for an sRGB window. Alpha over the
// checker uses the 2-D path's integer rounding.
constexpr const char* FrameFragmentShader = R"(#version 330 core
in vec2 Uv;
out vec4 Colour;
uniform sampler2D PlaneY;
uniform sampler2D PlaneCr;
uniform sampler2D PlaneCb;
uniform sampler2D PlaneAlpha;
uniform sampler2D PlaneHdr;
layout(std140) uniform FrameBlock {
  vec4 Table[4];    // colour table rows Cr, Cb, offset, Y: red, green, blue, unused
  ivec4 Size;       // frame width, height; chroma width, height
  ivec4 Planes;     // alpha plane, HDR plane, chroma planes, wide-range frame
  uvec4 Checker;    // on, first cell, second cell, unused
  vec4 Hdr;         // intensity scale, exposure, display peak (1.0 = 80 nits), look
  vec4 HdrChroma;   // Ct scale, Cp scale, Ct offset, Cp offset
  vec4 ToLms[3];    // I-Ct-Cp to L'M'S' code values, by rows
  vec4 ToRgb[3];    // linear LMS to RGB, by rows
};

float Sample(sampler2D plane, ivec2 at) {
  return floor(texelFetch(plane, at, 0).r * 255.0 + 0.5);
}

float Column(sampler2D plane, int x, int nearRow, int farRow) {
  return 3.0 * Sample(plane, ivec2(x, nearRow)) + Sample(plane, ivec2(x, farRow));
}

// The far chroma row is above on even lines and below on odd ones; the first and the last
// line of the frame use the near row only. Columns repeat at the frame's edges.
float Upsampled(sampler2D plane, ivec2 p) {
  int nearRow = p.y / 2;
  int farRow = p.y + 1 >= Size.y ? nearRow : ((p.y & 1) != 0 ? nearRow + 1 : max(nearRow - 1, 0));
  int k = p.x / 2;
  int side = (p.x & 1) != 0 ? min(k + 1, Size.z - 1) : max(k - 1, 0);
  return (3.0 * Column(plane, k, nearRow, farRow) + Column(plane, side, nearRow, farRow)) / 16.0;
}

vec3 Standard(ivec2 p) {
  float y = Sample(PlaneY, p);
  float cr = 128.0, cb = 128.0;
  if (Planes.z != 0) {
    cr = Upsampled(PlaneCr, p);
    cb = Upsampled(PlaneCb, p);
  }
  vec3 v = (Table[3].rgb * y + Table[0].rgb * cr + Table[1].rgb * cb) / 255.0 + Table[2].rgb;
  float d = (p.y & 1) == 0 ? ((p.x & 1) == 0 ? 0.0 : 4.0) : ((p.x & 1) == 0 ? 6.0 : 2.0);
  return floor(clamp(floor(v * 2048.0 + d), 0.0, 2047.0) / 8.0);
}

vec3 PqToLinear(vec3 code) {
  vec3 p = pow(clamp(code, 0.0, 1.0), vec3(1.0 / 78.84375));
  vec3 v = pow(max(p - 0.8359375, 0.0) / (18.8515625 - 18.6875 * p), vec3(1.0 / 0.1593017578125));
  return mix(vec3(0.0), v, greaterThan(code, vec3(0.0)));
}

// Linear light scaled to the display's peak: 0 clips; 1 bends softly above 70% of the peak;
// 2 compresses the whole range, reaching the peak at four times it.
vec3 Look(vec3 x, float peak, int look) {
  vec3 v = x / peak;
  if (look == 1) {
    const float knee = 0.7;
    vec3 above = knee + (1.0 - knee) * (1.0 - exp(-(v - knee) / (1.0 - knee)));
    v = mix(v, above, greaterThan(v, vec3(knee)));
  } else if (look == 2) {
    v = v * (1.0 + v / 16.0) / (1.0 + v);
  }
  return clamp(v, 0.0, 1.0);
}

vec3 EncodeSrgb(vec3 v) {
  vec3 high = 1.055 * pow(v, vec3(1.0 / 2.4)) - 0.055;
  return mix(high, 12.92 * v, lessThanEqual(v, vec3(0.0031308)));
}

vec3 WideRange(ivec2 p) {
  float level = Sample(PlaneY, p) + (Planes.y != 0 ? Sample(PlaneHdr, p) : 0.0);
  ivec2 c = min(p / 2, Size.zw - 1);
  vec3 ictcp = vec3(level / 255.0 * Hdr.x, Sample(PlaneCr, c) / 255.0 * HdrChroma.x + HdrChroma.z,
                    Sample(PlaneCb, c) / 255.0 * HdrChroma.y + HdrChroma.w);
  vec3 code = vec3(dot(ToLms[0].xyz, ictcp), dot(ToLms[1].xyz, ictcp), dot(ToLms[2].xyz, ictcp));
  vec3 lms = PqToLinear(code);
  vec3 rgb = max(vec3(dot(ToRgb[0].xyz, lms), dot(ToRgb[1].xyz, lms), dot(ToRgb[2].xyz, lms)), 0.0);
  return floor(EncodeSrgb(Look(rgb * Hdr.y, Hdr.z, int(Hdr.w))) * 255.0 + 0.5);
}

void main() {
  ivec2 p = min(ivec2(Uv * vec2(Size.xy)), Size.xy - 1);
  float a = Planes.x != 0 ? Sample(PlaneAlpha, p) : 255.0;
  vec3 rgb = Planes.w != 0 ? WideRange(p) : Standard(p);
  if (Checker.x != 0u) {
    uint cell = (((p.x >> 3) + (p.y >> 3)) & 1) != 0 ? Checker.z : Checker.y;
    uint au = uint(a);
    uvec3 mixed = ((uvec3(rgb) * au * 32897u) >> 23u) + uvec3((cell * (255u - au) * 32897u) >> 23u);
    rgb = vec3(mixed);
  }
  Colour = vec4(rgb / 255.0, a / 255.0);
}
)";

// Pictures drawn on the processor, laid over pixel for pixel (each window pixel takes the
// picture pixel it lies on) and blended by their alpha.
constexpr const char* OverlayFragmentShader = R"(#version 330 core
in vec2 Uv;
out vec4 Colour;
uniform sampler2D Overlay;
void main() {
  ivec2 size = textureSize(Overlay, 0);
  Colour = texelFetch(Overlay, min(ivec2(Uv * vec2(size)), size - 1), 0);
}
)";

// The uniform block as std140 lays it out.
struct FrameBlock {
  float Table[4][4];
  int32_t Size[4];
  int32_t Planes[4];
  uint32_t Checker[4];
  float Hdr[4];
  float HdrChroma[4];
  float ToLms[3][4];
  float ToRgb[3][4];
};
static_assert(sizeof(FrameBlock) == 240, "std140 layout of the frame block");

constexpr GLuint FrameBlockBinding = 0;
constexpr const char* PlaneNames[VelmoPlaneCount] = {"PlaneY", "PlaneCr", "PlaneCb", "PlaneAlpha",
                                                     "PlaneHdr"};

}  // namespace

struct PlayerGl {
  SDL_Window* Window = nullptr;
  SDL_GLContext Context = nullptr;
  GlFunctions F;
  GLuint FrameProgram = 0, OverlayProgram = 0;
  GLint FrameRect = -1, OverlayRect = -1;
  GLuint VertexArray = 0, Block = 0;
  GLuint Planes[VelmoPlaneCount] = {};  // textures of the file's planes; 0 for absent ones
  GLuint SliderTexture = 0, StripTexture = 0;
  int32_t PlaneWidth[VelmoPlaneCount] = {}, PlaneHeight[VelmoPlaneCount] = {};
};

namespace {

GLuint Compile(const GlFunctions& f, GLenum type, const char* source) {
  const GLuint shader = f.CreateShader(type);
  f.ShaderSource(shader, 1, &source, nullptr);
  f.CompileShader(shader);
  GLint ok = 0;
  f.GetShaderiv(shader, GL_COMPILE_STATUS, &ok);
  if (!ok) {
    char log[1024] = {};
    f.GetShaderInfoLog(shader, sizeof log, nullptr, log);
    SDL_SetError("shader: %s", log);
    f.DeleteShader(shader);
    return 0;
  }
  return shader;
}

GLuint Link(const GlFunctions& f, const char* fragment) {
  const GLuint vs = Compile(f, GL_VERTEX_SHADER, QuadVertexShader);
  const GLuint fs = Compile(f, GL_FRAGMENT_SHADER, fragment);
  GLuint program = 0;
  if (vs && fs) {
    program = f.CreateProgram();
    f.AttachShader(program, vs);
    f.AttachShader(program, fs);
    f.LinkProgram(program);
    GLint ok = 0;
    f.GetProgramiv(program, GL_LINK_STATUS, &ok);
    if (!ok) f.DeleteProgram(program), program = 0;
  }
  if (vs) f.DeleteShader(vs);
  if (fs) f.DeleteShader(fs);
  return program;
}

bool BuildPrograms(PlayerGl* gl) {
  const GlFunctions& f = gl->F;
  gl->FrameProgram = Link(f, FrameFragmentShader);
  gl->OverlayProgram = Link(f, OverlayFragmentShader);
  if (!gl->FrameProgram || !gl->OverlayProgram) return false;
  f.UseProgram(gl->FrameProgram);
  for (int i = 0; i < VelmoPlaneCount; ++i)
    f.Uniform1i(f.GetUniformLocation(gl->FrameProgram, PlaneNames[i]), i);
  const GLuint block = f.GetUniformBlockIndex(gl->FrameProgram, "FrameBlock");
  if (block == GL_INVALID_INDEX) return false;
  f.UniformBlockBinding(gl->FrameProgram, block, FrameBlockBinding);
  gl->FrameRect = f.GetUniformLocation(gl->FrameProgram, "Rect");
  f.UseProgram(gl->OverlayProgram);
  f.Uniform1i(f.GetUniformLocation(gl->OverlayProgram, "Overlay"), 0);
  gl->OverlayRect = f.GetUniformLocation(gl->OverlayProgram, "Rect");
  f.GenVertexArrays(1, &gl->VertexArray);
  f.GenBuffers(1, &gl->Block);
  return f.GetError() == GL_NO_ERROR;
}

// A texture of `width` x `height` texels of `internal` format, sampled as it is.
GLuint MakeTexture(const GlFunctions& f, GLint internal, GLenum format, int32_t width,
                   int32_t height) {
  GLuint t = 0;
  f.GenTextures(1, &t);
  f.BindTexture(GL_TEXTURE_2D, t);
  f.TexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
  f.TexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
  f.TexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  f.TexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
  f.TexImage2D(GL_TEXTURE_2D, 0, internal, width, height, 0, format, GL_UNSIGNED_BYTE, nullptr);
  return t;
}

void DeletePlanes(PlayerGl* gl) {
  for (GLuint& t : gl->Planes)
    if (t) gl->F.DeleteTextures(1, &t), t = 0;
}

// Window rectangle (top-left origin, pixels) to the quad's clip-space corners.
void SetRect(const PlayerGl* gl, GLint location, const PlayerGlView& v, double x, double y,
             double w, double h) {
  const double sx = 2.0 / v.WindowWidth, sy = 2.0 / v.WindowHeight;
  gl->F.Uniform4f(location, float(x * sx - 1), float(1 - y * sy), float((x + w) * sx - 1),
                  float(1 - (y + h) * sy));
}

// The decoder's planes of the current set, one update a plane from its own memory; the
// chroma planes' rows are read with the chroma pitch.
void Upload(PlayerGl* gl, const VelmoFrameBuffers& fb) {
  const GlFunctions& f = gl->F;
  const VelmoFrameBufferSet& set = fb.Sets[fb.Current];
  f.PixelStorei(GL_UNPACK_ALIGNMENT, 1);
  for (int i = 0; i < VelmoPlaneCount; ++i) {
    if (!gl->Planes[i] || !set.Planes[i]) continue;
    const bool chroma = i == VelmoPlaneCr || i == VelmoPlaneCb;
    f.PixelStorei(GL_UNPACK_ROW_LENGTH, chroma ? fb.ChromaPitch : fb.LumaPitch);
    f.BindTexture(GL_TEXTURE_2D, gl->Planes[i]);
    f.TexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, gl->PlaneWidth[i], gl->PlaneHeight[i], GL_RED,
                    GL_UNSIGNED_BYTE, set.Planes[i]);
  }
  f.PixelStorei(GL_UNPACK_ROW_LENGTH, 0);
}

void FillBlock(const PlayerGl* gl, HVELMO h, const PlayerGlView& v, FrameBlock* b) {
  std::memset(b, 0, sizeof *b);
  const bool hdr = (h->FileFlags & VelmoFlagHdr) != 0;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) b->Table[r][c] = h->ColourTable[r * 4 + c];
  b->Size[0] = int32_t(h->Width);
  b->Size[1] = int32_t(h->Height);
  b->Size[2] = int32_t((h->Width + 1) / 2);
  b->Size[3] = int32_t((h->Height + 1) / 2);
  b->Planes[0] = gl->Planes[VelmoPlaneAlpha] != 0;
  b->Planes[1] = gl->Planes[VelmoPlaneHdr] != 0;
  b->Planes[2] = gl->Planes[VelmoPlaneCr] != 0 && !(h->OpenFlags & VelmoOpenGrayscale);
  b->Planes[3] = hdr;
  uint32_t first = 0, second = 0;
  PlayerCheckerCells(v.LightBackground, &first, &second);
  b->Checker[0] = v.Checker && gl->Planes[VelmoPlaneAlpha];
  b->Checker[1] = first;
  b->Checker[2] = second;
  if (!hdr) return;
  b->Hdr[0] = h->ColourTable[0];
  b->Hdr[1] = float(std::exp2(v.Exposure * 0.25));
  b->Hdr[2] = 1.0f;  // the window shows 80 nits at full scale
  b->Hdr[3] = float(v.HdrLook);
  b->HdrChroma[0] = h->ColourTable[1];
  b->HdrChroma[1] = h->ColourTable[2];
  b->HdrChroma[2] = h->ColourTable[3];
  b->HdrChroma[3] = h->ColourTable[4];
  double toLms[3][3], toRgb[3][3];
  HdrConversionRows(toLms, toRgb);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) {
      b->ToLms[r][c] = float(toLms[r][c]);
      b->ToRgb[r][c] = float(toRgb[r][c]);
    }
}

// Uploads `picture` into `*texture` (made or remade at its size) and lays it over the window
// rectangle.
void DrawOverlay(PlayerGl* gl, const PlayerGlView& v, const PlayerPicture& picture,
                 GLuint* texture, double x, double y, double w, double h) {
  const GlFunctions& f = gl->F;
  f.ActiveTexture(GL_TEXTURE0);
  if (*texture) f.DeleteTextures(1, texture);
  *texture = MakeTexture(f, GL_RGBA8, GL_BGRA, picture.Width, picture.Height);
  f.PixelStorei(GL_UNPACK_ALIGNMENT, 4);
  f.PixelStorei(GL_UNPACK_ROW_LENGTH, picture.Pitch / 4);
  f.TexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, picture.Width, picture.Height, GL_BGRA,
                  GL_UNSIGNED_INT_8_8_8_8_REV, picture.Bits);
  f.PixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  f.UseProgram(gl->OverlayProgram);
  SetRect(gl, gl->OverlayRect, v, x, y, w, h);
  f.Enable(GL_BLEND);
  f.BlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
  f.DrawArrays(GL_TRIANGLE_STRIP, 0, 4);
  f.Disable(GL_BLEND);
}

}  // namespace

int PlayerSwapInterval(uint32_t rate, uint32_t rateDiv) {
  if (rate == 0) return 0;
  return uint64_t(rate) >= uint64_t(62) * (rateDiv ? rateDiv : 1) ? 0 : 1;
}

void PlayerGlRequestAttributes() {
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_MAJOR_VERSION, 3);
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_MINOR_VERSION, 3);
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_PROFILE_MASK, SDL_GL_CONTEXT_PROFILE_CORE);
  SDL_GL_SetAttribute(SDL_GL_DOUBLEBUFFER, 1);
}

PlayerGl* PlayerGlCreate(SDL_Window* window) {
  if (!window) return nullptr;
  PlayerGl* gl = new PlayerGl;
  gl->Window = window;
  gl->Context = SDL_GL_CreateContext(window);
  if (!gl->Context || SDL_GL_MakeCurrent(window, gl->Context) != 0 || !LoadFunctions(&gl->F) ||
      !BuildPrograms(gl)) {
    PlayerGlDestroy(gl);
    return nullptr;
  }
  return gl;
}

void PlayerGlDestroy(PlayerGl* gl) {
  if (!gl) return;
  if (gl->Context && gl->F.DeleteProgram) {
    const GlFunctions& f = gl->F;
    DeletePlanes(gl);
    for (GLuint* t : {&gl->SliderTexture, &gl->StripTexture})
      if (*t) f.DeleteTextures(1, t);
    if (gl->Block) f.DeleteBuffers(1, &gl->Block);
    if (gl->VertexArray) f.DeleteVertexArrays(1, &gl->VertexArray);
    if (gl->FrameProgram) f.DeleteProgram(gl->FrameProgram);
    if (gl->OverlayProgram) f.DeleteProgram(gl->OverlayProgram);
  }
  if (gl->Context) SDL_GL_DeleteContext(gl->Context);
  delete gl;
}

bool PlayerGlSetup(PlayerGl* gl, HVELMO h) {
  const VelmoFrameBuffers* fb = h->FrameBuffers;
  if (!fb || fb->LumaPitch <= 0 || fb->ChromaPitch <= 0 || !h->Width || !h->Height) return false;
  const GlFunctions& f = gl->F;
  DeletePlanes(gl);
  const VelmoFrameBufferSet& set = fb->Sets[fb->Current];
  const bool hdr = (h->FileFlags & VelmoFlagHdr) != 0;
  for (int i = 0; i < VelmoPlaneCount; ++i) {
    if (!set.Planes[i]) continue;
    if (i == VelmoPlaneAlpha && !fb->HasAlpha) continue;
    if (i == VelmoPlaneHdr && !hdr) continue;
    const bool chroma = i == VelmoPlaneCr || i == VelmoPlaneCb;
    gl->PlaneWidth[i] = int32_t(chroma ? (h->Width + 1) / 2 : h->Width);
    gl->PlaneHeight[i] = int32_t(chroma ? (h->Height + 1) / 2 : h->Height);
    gl->Planes[i] = MakeTexture(f, GL_R8, GL_RED, gl->PlaneWidth[i], gl->PlaneHeight[i]);
  }
  SDL_GL_SetSwapInterval(PlayerSwapInterval(h->FrameRate, h->FrameRateDiv));
  return f.GetError() == GL_NO_ERROR && gl->Planes[VelmoPlaneY];
}

void PlayerGlDraw(PlayerGl* gl, HVELMO h, const PlayerGlView& v) {
  const GlFunctions& f = gl->F;
  if (!h->FrameBuffers || v.WindowWidth <= 0 || v.WindowHeight <= 0) return;
  f.Viewport(0, 0, v.WindowWidth, v.WindowHeight);
  f.ClearColor(0, 0, 0, 1);
  f.Clear(GL_COLOR_BUFFER_BIT);
  if (v.Upload) Upload(gl, *h->FrameBuffers);
  FrameBlock block;
  FillBlock(gl, h, v, &block);
  f.BindBuffer(GL_UNIFORM_BUFFER, gl->Block);
  f.BufferData(GL_UNIFORM_BUFFER, sizeof block, &block, GL_STREAM_DRAW);
  f.BindBufferBase(GL_UNIFORM_BUFFER, FrameBlockBinding, gl->Block);
  // With the flip, luma shows from the alpha plane's unit and alpha from luma's.
  const bool flip = (h->OpenFlags & VelmoCopyFlipAlpha) && gl->Planes[VelmoPlaneAlpha];
  for (int i = 0; i < VelmoPlaneCount; ++i) {
    int source = i;
    if (flip && i == VelmoPlaneY) source = VelmoPlaneAlpha;
    if (flip && i == VelmoPlaneAlpha) source = VelmoPlaneY;
    f.ActiveTexture(GL_TEXTURE0 + i);
    f.BindTexture(GL_TEXTURE_2D, gl->Planes[source]);
  }
  f.BindVertexArray(gl->VertexArray);
  f.UseProgram(gl->FrameProgram);
  SetRect(gl, gl->FrameRect, v, v.X, v.Y, v.Width, v.Height);
  f.DrawArrays(GL_TRIANGLE_STRIP, 0, 4);
  if (v.Slider && v.Slider->Height > 0 && h->Height > 0) {
    // The slider's lines are the frame's bottom rows, scaled with the frame.
    const double rowScale = double(v.Height) / h->Height;
    const double top = v.Y + (double(h->Height) - v.Slider->Height) * rowScale;
    DrawOverlay(gl, v, *v.Slider, &gl->SliderTexture, v.X, top, v.Width,
                v.Slider->Height * rowScale);
  }
  if (v.Strip && v.Strip->Height > 0)
    DrawOverlay(gl, v, *v.Strip, &gl->StripTexture, v.StripX, v.StripY, v.Strip->Width,
                v.Strip->Height);
  for (int i = VelmoPlaneCount - 1; i >= 0; --i) {
    f.ActiveTexture(GL_TEXTURE0 + i);
    f.BindTexture(GL_TEXTURE_2D, 0);
  }
}

bool PlayerGlReadPixels(PlayerGl* gl, int32_t width, int32_t height, std::vector<uint32_t>* out) {
  const GlFunctions& f = gl->F;
  if (width <= 0 || height <= 0) return false;
  std::vector<uint32_t> rows(size_t(width) * size_t(height));
  f.ReadBuffer(GL_BACK);
  f.PixelStorei(GL_PACK_ALIGNMENT, 4);
  f.ReadPixels(0, 0, width, height, GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV, rows.data());
  if (f.GetError() != GL_NO_ERROR) return false;
  // GL's rows run bottom-up.
  out->resize(rows.size());
  for (int32_t y = 0; y < height; ++y)
    std::copy_n(rows.data() + size_t(height - 1 - y) * width, width, out->data() + size_t(y) * width);
  return true;
}

void PlayerGlSwap(PlayerGl* gl) { SDL_GL_SwapWindow(gl->Window); }

void PlayerGlBlank(PlayerGl* gl) {
  int32_t width = 0, height = 0;
  SDL_GL_GetDrawableSize(gl->Window, &width, &height);
  gl->F.Viewport(0, 0, width, height);
  gl->F.ClearColor(0, 0, 0, 1);
  gl->F.Clear(GL_COLOR_BUFFER_BIT);
  SDL_GL_SwapWindow(gl->Window);
}
