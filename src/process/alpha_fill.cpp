// Colour under transparent pixels. After un-premultiplying, pixels of alpha 0 carry no useful
// colour; left black they would bleed into visible edges once the frame is filtered or
// compressed. The fill gives them the colour of what is near:
//
// 1. "Fill in alpha": in every 16×16 tile with some alpha, transparent pixels take the mean of
//    their filled 4-neighbours, most-surrounded first; the tile's four edge colours are noted.
// 2. "Flood alpha": four sweeps (left to right, right to left, upward, downward) carry the edge
//    colour of the last tile with content over the empty tiles after it.
// 3. Averaging: an empty tile reached by sweeps takes the mean of what they brought. Flood and
//    averaging run a second time for tiles that no sweep reached.
// 4. "Fill flooded alpha": flooded tiles are painted with their colour, alpha 0.
//
// Tiles are taken from atomic counters; a tile's state is only ever changed by an atomic OR
// while the sweeps run. The result is the same for any number of threads.
#include <cmath>
#include <vector>

#include "process/stage_bands.h"

namespace {

constexpr uint32_t TileSize = 16;

enum : uint32_t {
  TileDirections = 15,  // bits 0..3: reached by the sweep of that direction
  TileSource = 16,      // from here up the tile has colours of its own
  TileFlat = 64,        // painted flat in the end
  TileHasColour = 128,
};

// Edge colour slots; an empty tile keeps the colour each sweep brought in slot `direction`.
enum { EdgeTop = 0, EdgeBottom = 1, EdgeLeft = 2, EdgeRight = 3 };

// Sweep directions: 0 rows left to right, 1 rows right to left, 2 columns upward, 3 columns
// downward. A source tile hands on the edge that faces the direction of travel.
constexpr int FacingEdge[4] = {EdgeRight, EdgeLeft, EdgeTop, EdgeBottom};

// 16384 ÷ n for n = 1 .. 8.
constexpr uint32_t MeanFactor[8] = {16384, 8192, 5462, 4096, 3277, 2731, 2341, 2048};

struct IntPixels {
  typedef uint8_t Channel;
  typedef uint32_t Sum;
  static constexpr size_t Bytes = 4;
  static bool Present(const uint8_t* p) { return p[3] > 0; }
  static bool Full(const uint8_t* p) { return p[3] > 254; }
  static void AddColour(const uint8_t* p, Sum sum[3]) {
    sum[0] += p[2];
    sum[1] += p[1];
    sum[2] += p[0];
  }
  static Channel Mean(Sum sum, uint32_t n) { return Channel((sum + n / 2) / n); }
  static Channel DirectionMean(Sum sum, uint32_t n) {
    return Channel((sum * MeanFactor[n - 1]) >> 14);
  }
  static void SetColour(uint8_t* p, const Channel c[3]) {
    p[2] = c[0];
    p[1] = c[1];
    p[0] = c[2];
  }
  static void SetFlat(uint8_t* p, const Channel c[3]) {
    SetColour(p, c);
    p[3] = 0;
  }
};

struct FloatPixels {
  typedef float Channel;
  typedef float Sum;
  static constexpr size_t Bytes = 16;
  static float Alpha(const uint8_t* p) {
    float a;
    std::memcpy(&a, p + 12, 4);
    return a;
  }
  static bool Present(const uint8_t* p) { return Alpha(p) > 0.0f; }
  static bool Full(const uint8_t* p) { return Alpha(p) >= 1.0f; }
  static void AddColour(const uint8_t* p, Sum sum[3]) {
    float c[3];
    std::memcpy(c, p, 12);
    for (int i = 0; i < 3; ++i) sum[i] += c[i];
  }
  static Channel Mean(Sum sum, uint32_t n) { return sum / float(n); }
  static Channel DirectionMean(Sum sum, uint32_t n) { return sum / float(n); }
  static void SetColour(uint8_t* p, const Channel c[3]) { std::memcpy(p, c, 12); }
  static void SetFlat(uint8_t* p, const Channel c[3]) {
    const float pixel[4] = {c[0], c[1], c[2], 0.0f};
    std::memcpy(p, pixel, 16);
  }
};

template <typename Pixels>
struct Tile {
  volatile uint32_t State;
  typename Pixels::Channel Colours[4][3];
};

template <typename Pixels>
struct FillJob {
  uint8_t* Frame;
  ptrdiff_t Pitch;
  uint32_t Width, Height;
  uint32_t TilesX, TilesY;
  Tile<Pixels>* Tiles;
  volatile uint32_t NextItem;
  volatile uint32_t EmptyTiles;

  uint8_t* Pixel(uint32_t x, uint32_t y) const {
    return Frame + ptrdiff_t(y) * Pitch + ptrdiff_t(x) * ptrdiff_t(Pixels::Bytes);
  }
  Tile<Pixels>* At(uint32_t tx, uint32_t ty) const { return Tiles + size_t(ty) * TilesX + tx; }
};

// The pixels of tile (tx, ty) that lie inside the frame.
struct TileArea {
  uint32_t X, Y, Width, Height;
};

template <typename Pixels>
TileArea AreaOf(const FillJob<Pixels>* job, uint32_t tile) {
  const uint32_t x = (tile % job->TilesX) * TileSize, y = (tile / job->TilesX) * TileSize;
  return TileArea{x, y, std::min(TileSize, job->Width - x), std::min(TileSize, job->Height - y)};
}

// One pass over the tile: each open pixel with at least `need` filled 4-neighbours takes their
// mean colour at once. Reports whether any pixel changed and whether any stayed open.
template <typename Pixels>
void FillSweep(const FillJob<Pixels>* job, const TileArea& a, bool filled[TileSize][TileSize],
               uint32_t need, bool* changed, bool* open) {
  static const int dx[4] = {-1, 1, 0, 0}, dy[4] = {0, 0, -1, 1};
  for (uint32_t y = 0; y < a.Height; ++y) {
    for (uint32_t x = 0; x < a.Width; ++x) {
      if (filled[y][x]) continue;
      typename Pixels::Sum sum[3] = {};
      uint32_t n = 0;
      for (int k = 0; k < 4; ++k) {
        const int nx = int(x) + dx[k], ny = int(y) + dy[k];
        if (nx < 0 || ny < 0 || nx >= int(a.Width) || ny >= int(a.Height)) continue;
        if (!filled[ny][nx]) continue;
        Pixels::AddColour(job->Pixel(a.X + nx, a.Y + ny), sum);
        ++n;
      }
      if (n < need || n == 0) {
        *open = true;
        continue;
      }
      const typename Pixels::Channel colour[3] = {Pixels::Mean(sum[0], n), Pixels::Mean(sum[1], n),
                                                  Pixels::Mean(sum[2], n)};
      Pixels::SetColour(job->Pixel(a.X + x, a.Y + y), colour);
      filled[y][x] = true;
      *changed = true;
    }
  }
}

template <typename Pixels>
void MeanOfPixels(const FillJob<Pixels>* job, uint32_t x, uint32_t y, uint32_t stepX,
                  uint32_t stepY, uint32_t count, typename Pixels::Channel out[3]) {
  typename Pixels::Sum sum[3] = {};
  for (uint32_t i = 0; i < count; ++i)
    Pixels::AddColour(job->Pixel(x + i * stepX, y + i * stepY), sum);
  for (int c = 0; c < 3; ++c) out[c] = Pixels::Mean(sum[c], count);
}

template <typename Pixels>
void FillTile(FillJob<Pixels>* job, uint32_t index) {
  const TileArea a = AreaOf(job, index);
  Tile<Pixels>* tile = job->Tiles + index;
  bool filled[TileSize][TileSize] = {};
  uint32_t present = 0, full = 0;
  for (uint32_t y = 0; y < a.Height; ++y)
    for (uint32_t x = 0; x < a.Width; ++x) {
      const uint8_t* p = job->Pixel(a.X + x, a.Y + y);
      filled[y][x] = Pixels::Present(p);
      present += filled[y][x];
      full += Pixels::Full(p);
    }
  if (present == 0) {
    AtomicStore(&tile->State, 0);
    AtomicAdd(&job->EmptyTiles, 1);
    return;
  }
  if (full < a.Width * a.Height) {
    for (uint32_t need = 4; need >= 1;) {
      bool changed = false, open = false;
      FillSweep(job, a, filled, need, &changed, &open);
      if (!open) break;
      if (!changed) --need;
    }
  }
  MeanOfPixels(job, a.X, a.Y, 1, 0, a.Width, tile->Colours[EdgeTop]);
  MeanOfPixels(job, a.X, a.Y + a.Height - 1, 1, 0, a.Width, tile->Colours[EdgeBottom]);
  MeanOfPixels(job, a.X, a.Y, 0, 1, a.Height, tile->Colours[EdgeLeft]);
  MeanOfPixels(job, a.X + a.Width - 1, a.Y, 0, 1, a.Height, tile->Colours[EdgeRight]);
  AtomicStore(&tile->State, TileHasColour);
}

template <typename Pixels>
void FillInAlpha(void* context, uint32_t) {
  auto* job = static_cast<FillJob<Pixels>*>(context);
  const uint32_t tiles = job->TilesX * job->TilesY;
  uint32_t index;
  while (ProcessTakeItem(&job->NextItem, tiles, &index)) FillTile(job, index);
}

void AtomicOr(volatile uint32_t* word, uint32_t bits) {
  uint32_t seen = AtomicRead(word);
  while (!AtomicCompareExchange(word, &seen, seen | bits)) {
  }
}

// One line of tiles in the sweep's direction of travel.
template <typename Pixels>
void FloodLine(FillJob<Pixels>* job, uint32_t direction, uint32_t line) {
  const bool alongRows = direction < 2;
  const uint32_t length = alongRows ? job->TilesX : job->TilesY;
  const bool backward = direction == 1 || direction == 2;
  const typename Pixels::Channel* carried = nullptr;
  for (uint32_t step = 0; step < length; ++step) {
    const uint32_t i = backward ? length - 1 - step : step;
    Tile<Pixels>* tile = alongRows ? job->At(i, line) : job->At(line, i);
    if (AtomicRead(&tile->State) >= TileSource) {
      carried = tile->Colours[FacingEdge[direction]];
    } else if (carried) {
      for (int c = 0; c < 3; ++c) tile->Colours[direction][c] = carried[c];
      AtomicOr(&tile->State, 1u << direction);
    }
  }
}

template <typename Pixels>
void FloodAlpha(void* context, uint32_t) {
  auto* job = static_cast<FillJob<Pixels>*>(context);
  uint32_t direction;
  while (ProcessTakeItem(&job->NextItem, 4, &direction)) {
    const uint32_t lines = direction < 2 ? job->TilesY : job->TilesX;
    for (uint32_t line = 0; line < lines; ++line) FloodLine(job, direction, line);
  }
}

// Empty tiles that sweeps reached take the mean of the colours brought; returns how many
// empty tiles no sweep reached.
template <typename Pixels>
uint32_t AverageFlooded(FillJob<Pixels>* job) {
  uint32_t unreached = 0;
  const uint32_t tiles = job->TilesX * job->TilesY;
  for (uint32_t index = 0; index < tiles; ++index) {
    Tile<Pixels>* tile = job->Tiles + index;
    const uint32_t state = tile->State;
    if (state >= TileSource) continue;
    if ((state & TileDirections) == 0) {
      ++unreached;
      continue;
    }
    typename Pixels::Sum sum[3] = {};
    uint32_t n = 0;
    for (uint32_t d = 0; d < 4; ++d) {
      if (!(state & (1u << d))) continue;
      for (int c = 0; c < 3; ++c) sum[c] += tile->Colours[d][c];
      ++n;
    }
    typename Pixels::Channel mean[3];
    for (int c = 0; c < 3; ++c) mean[c] = Pixels::DirectionMean(sum[c], n);
    for (int e = 0; e < 4; ++e)
      for (int c = 0; c < 3; ++c) tile->Colours[e][c] = mean[c];
    tile->State = TileHasColour | TileFlat;
  }
  return unreached;
}

template <typename Pixels>
void FillFlooded(void* context, uint32_t) {
  auto* job = static_cast<FillJob<Pixels>*>(context);
  const uint32_t tiles = job->TilesX * job->TilesY;
  uint32_t index;
  while (ProcessTakeItem(&job->NextItem, tiles, &index)) {
    const Tile<Pixels>* tile = job->Tiles + index;
    if (!(tile->State & TileFlat)) continue;
    const TileArea a = AreaOf(job, index);
    for (uint32_t y = 0; y < a.Height; ++y)
      for (uint32_t x = 0; x < a.Width; ++x)
        Pixels::SetFlat(job->Pixel(a.X + x, a.Y + y), tile->Colours[EdgeTop]);
  }
}

template <typename Pixels>
void RunFill(uint8_t* frame, ptrdiff_t pitch, uint32_t width, uint32_t height,
             const ProcessJobRunner* runner) {
  if (width == 0 || height == 0) return;
  FillJob<Pixels> job{};
  job.Frame = frame;
  job.Pitch = pitch;
  job.Width = width;
  job.Height = height;
  job.TilesX = (width + TileSize - 1) / TileSize;
  job.TilesY = (height + TileSize - 1) / TileSize;
  const uint32_t tiles = job.TilesX * job.TilesY;
  std::vector<Tile<Pixels>> table(tiles);
  job.Tiles = table.data();

  ProcessRunJob(runner, "Fill in alpha", FillInAlpha<Pixels>, &job);
  if (job.EmptyTiles == 0 || job.EmptyTiles == tiles) return;
  for (int round = 0; round < 2; ++round) {
    job.NextItem = 0;
    ProcessRunJob(runner, "Flood alpha", FloodAlpha<Pixels>, &job);
    if (AverageFlooded(&job) == 0) break;
  }
  job.NextItem = 0;
  ProcessRunJob(runner, "Fill flooded alpha", FillFlooded<Pixels>, &job);
}

}  // namespace

void AlphaFill(uint8_t* frame, ptrdiff_t pitch, uint32_t width, uint32_t height,
               const ProcessJobRunner* runner) {
  RunFill<IntPixels>(frame, pitch, width, height, runner);
}

void AlphaFillFloat(uint8_t* frame, ptrdiff_t pitch, uint32_t width, uint32_t height,
                    const ProcessJobRunner* runner) {
  RunFill<FloatPixels>(frame, pitch, width, height, runner);
}
