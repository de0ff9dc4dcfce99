// The motion search in stages: whole-pixel start candidates, a coarse cross, a square, rings,
// a hexagon and a cross refinement, then half pixels with a fine cross. Each candidate's cost
// stops as soon as a part sum is no longer below the best: most candidates end after luma.
#include "encode2/velmo2_motion.h"

#include <algorithm>
#include <bit>

namespace {

// The distortion weight of a quadrant outside the picture (and, when all four are outside,
// of the vector bits too): small enough that only vector bits decide, yet not zero, so that
// among equal bits the better prediction still wins.
constexpr double kOutsideWeight = 1.168718507388311e-11;
constexpr double kNoCost = 1e300;

// The early-out limit of the whole-pixel stage, in units of luma distortion per pixel: a start
// whose cost is at most a mean squared error of 1 per luma pixel (plus the cheapest vector)
// is already within the rounding noise of the reference, so the long search (several hundred
// candidates) could gain little, and what it gained would mostly go to longer vector codes;
// only a short cross refinement runs then. Static backgrounds and motion that the neighbours
// already predict mostly end here.
constexpr double kEarlyOutPerPixel = 1.0;

// Bounds of one coordinate's absolute position (half pixels) for each parity, as the
// decoder's parity-keeping clamp sets them: a position inside is never moved by the clamp.
struct Axis {
  int64_t Lo[2], Hi[2];
  bool Inside(int64_t p) const {
    const int h = int(p & 1);
    return p >= Lo[h] && p <= Hi[h];
  }
};

Axis AxisOf(uint32_t size) {
  const int64_t lim = 2 * int64_t(size);
  Axis a{};
  a.Lo[0] = 0;
  a.Hi[0] = std::max<int64_t>(0, lim - 32);
  // A plane too narrow for the six taps has no odd positions: the range is left empty.
  a.Lo[1] = 5;
  a.Hi[1] = lim - 37;
  return a;
}

struct Vec {
  int32_t X, Y;
  bool operator==(const Vec&) const = default;
};

constexpr Vec kCross[4] = {{1, 0}, {0, -1}, {-1, 0}, {0, 1}};
constexpr Vec kHexagon[6] = {{2, 0}, {1, -2}, {-1, -2}, {-2, 0}, {-1, 2}, {1, 2}};
constexpr Vec kRing[16] = {{4, 0},  {4, 1},   {4, 2},   {2, 3},   {0, 4},   {-2, 3},
                           {-4, 2}, {-4, 1},  {-4, 0},  {-4, -1}, {-4, -2}, {-2, -3},
                           {0, -4}, {2, -3},  {4, -2},  {4, -1}};

int32_t Even(int32_t v) { return int32_t(uint32_t(v) & ~1u); }

// One quadrant's search record.
class Quadrant {
 public:
  Quadrant(const Velmo2MotionInput& in, uint32_t q, Vec pred) : In(in), Pred(pred) {
    const uint32_t qx = (q & 1) * 16, qy = (q >> 1) * 16;
    BaseX = 2 * int64_t(in.MbX + qx);
    BaseY = 2 * int64_t(in.MbY + qy);
    AxisX = AxisOf(in.Width);
    AxisY = AxisOf(in.Height);
    const bool outside = in.OutsideMask >> q & 1;
    const double w = outside ? kOutsideWeight : 1.0;
    VectorWeight = in.InverseLambda * ((in.OutsideMask & 15) == 15 ? kOutsideWeight : 1.0);
    for (uint32_t p = 0; p < Velmo2MotionPlanes; ++p) {
      const bool chroma = p == Velmo2MotionCr || p == Velmo2MotionCb;
      const uint32_t shift = chroma ? 1 : 0;
      const Velmo2MotionPlaneRef& s = in.Source[p];
      Present[p] = s.Line0 && in.Reference[p].Line0;
      if (Present[p])
        Src[p] = s.Line0 + ptrdiff_t((in.MbY + qy) >> shift) * s.Pitch + ((in.MbX + qx) >> shift);
    }
    Weight[Velmo2MotionY] = in.LumaWeight * w;
    Weight[Velmo2MotionCr] = Weight[Velmo2MotionCb] = in.ChromaWeight * w;
    Weight[Velmo2MotionAlpha] = in.AlphaWeight * w;
    Weight[Velmo2MotionHdr] = in.HdrWeight * w;
    EarlyOut = kEarlyOutPerPixel * 256.0 * Weight[Velmo2MotionY] + 2.0 * VectorWeight;
  }

  // The cost of a candidate, or kNoCost as soon as a part sum is not below `limit` or when it
  // lies outside the bounds.
  double Cost(Vec v, double limit) const {
    const int64_t px = BaseX + v.X, py = BaseY + v.Y;
    if (!AxisX.Inside(px) || !AxisY.Inside(py)) return kNoCost;
    double cost = Velmo2VectorBits(int64_t(v.X) - Pred.X, int64_t(v.Y) - Pred.Y) * VectorWeight;
    if (!(cost < limit)) return kNoCost;
    static constexpr uint32_t kOrder[] = {Velmo2MotionY, Velmo2MotionAlpha, Velmo2MotionHdr,
                                          Velmo2MotionCr, Velmo2MotionCb};
    for (uint32_t p : kOrder) {
      if (!Present[p]) continue;
      cost += double(Distortion(p, px, py)) * Weight[p];
      if (!(cost < limit)) return kNoCost;
    }
    return cost;
  }

  // Costs the candidate and keeps it when strictly below the best; says whether it was kept.
  bool Try(Vec v) {
    const double cost = Cost(v, Best);
    if (!(cost < Best)) return false;
    Best = cost;
    BestVec = v;
    return true;
  }

  void Search(const Vec* neighbours, size_t count) {
    WholePixels(neighbours, count);
    HalfPixels(neighbours, count);
  }

  Vec BestVec{0, 0};
  double Best = kNoCost;

 private:
  // The difference of one plane's block at the absolute position. A whole-pixel luma block
  // is compared in place; anything else is fetched first with the decoder's own kernels, so
  // the chroma of a whole-pixel luma vector, which may fall between chroma pixels, is costed
  // as it will be reconstructed.
  uint32_t Distortion(uint32_t p, int64_t px, int64_t py) const {
    const Velmo2MotionPlaneRef& r = In.Reference[p];
    const bool chroma = p == Velmo2MotionCr || p == Velmo2MotionCb;
    const ptrdiff_t sp = In.Source[p].Pitch;
    if (chroma) {
      const uint8_t* ref = r.Line0 + ptrdiff_t(py >> 2) * r.Pitch + ptrdiff_t(px >> 2);
      const uint32_t f = uint32_t(px & 3) | uint32_t(py & 3) << 2;
      if (f == 0) return In.Diff->Diff8(ref, r.Pitch, Src[p], sp);
      alignas(16) uint8_t block[8 * 8];
      In.Fetch->FetchChroma[f](ref, r.Pitch, block, 8);
      return In.Diff->Diff8(block, 8, Src[p], sp);
    }
    const uint8_t* ref = r.Line0 + ptrdiff_t(py >> 1) * r.Pitch + ptrdiff_t(px >> 1);
    const uint32_t f = uint32_t(px & 1) | uint32_t(py & 1) << 1;
    if (f == 0) return In.Diff->Diff16(ref, r.Pitch, Src[p], sp);
    alignas(16) uint8_t block[16 * 16];
    In.Fetch->FetchLuma[f](ref, r.Pitch, block, 16);
    return In.Diff->Diff16(block, 16, Src[p], sp);
  }

  // The predicted vector held even and inside the even bounds.
  Vec HeldStart() const {
    const int64_t x = std::clamp<int64_t>(BaseX + Even(Pred.X), AxisX.Lo[0], AxisX.Hi[0]);
    const int64_t y = std::clamp<int64_t>(BaseY + Even(Pred.Y), AxisY.Lo[0], AxisY.Hi[0]);
    return Vec{int32_t(x - BaseX), int32_t(y - BaseY)};
  }

  void WholePixels(const Vec* neighbours, size_t count) {
    const Vec start = HeldStart();
    Try(start);
    Try(Vec{0, 0});
    for (size_t i = 0; i < count; ++i) Try(Vec{Even(neighbours[i].X), Even(neighbours[i].Y)});
    // A start that is the prediction itself codes as the shortest difference; it is favoured
    // over the zero vector by the bits that the zero vector would have cost beyond that.
    if (start == Pred && BestVec == start && Best < kNoCost) {
      const uint32_t zeroBits = Velmo2VectorBits(-int64_t(Pred.X), -int64_t(Pred.Y));
      Best -= (double(zeroBits) - 2.0) * VectorWeight;
    }
    if (Best <= EarlyOut) {
      Refine(kCross, 4, 2, 3);
      return;
    }
    for (int32_t r = 2; r < 129; r += 4)
      for (const Vec& d : kCross) Try(Vec{start.X + d.X * r, start.Y + d.Y * r});
    const Vec square = BestVec;
    for (int32_t j = -2; j <= 2; ++j)
      for (int32_t i = -2; i <= 2; ++i)
        if (i || j) Try(Vec{square.X + 2 * i, square.Y + 2 * j});
    for (int32_t r = 2; r <= 32; r += 2) {
      const Vec centre = BestVec;
      for (const Vec& d : kRing) Try(Vec{centre.X + d.X * r, centre.Y + d.Y * r});
    }
    Refine(kHexagon, 6, 2, 8);
    Refine(kCross, 4, 2, 8);
  }

  // The three half-pixel points toward the best of the four diagonal whole-pixel neighbours of
  // the whole-pixel winner: the diagonal one and the two on the axes. The cross that follows
  // moves along the axes only, so a valley running diagonally between two whole pixels
  // would otherwise hide the half-pixel point in its middle.
  int DiagonalCandidates(Vec whole, Vec out[3]) const {
    static constexpr Vec kDiagonals[4] = {{1, 1}, {-1, 1}, {1, -1}, {-1, -1}};
    double lowest = kNoCost;
    const Vec* toward = nullptr;
    for (const Vec& d : kDiagonals) {
      const double c = Cost(Vec{whole.X + 2 * d.X, whole.Y + 2 * d.Y}, lowest);
      if (c < lowest) {
        lowest = c;
        toward = &d;
      }
    }
    if (!toward) return 0;
    out[0] = Vec{whole.X + toward->X, whole.Y + toward->Y};
    out[1] = Vec{whole.X + toward->X, whole.Y};
    out[2] = Vec{whole.X, whole.Y + toward->Y};
    return 3;
  }

  void HalfPixels(const Vec* neighbours, size_t count) {
    const Vec whole = BestVec;
    Vec kept[3];
    const int keptCount = DiagonalCandidates(whole, kept);
    Best = kNoCost;
    Try(whole);
    Try(Pred);
    for (size_t i = 0; i < count; ++i) Try(neighbours[i]);
    for (int i = 0; i < keptCount; ++i) Try(kept[i]);
    Refine(kCross, 4, 1, 8);
  }

  // Rounds of a pattern around the best at `spacing`: the first round tries every point, each
  // later one only the winning direction and its two neighbours; a round without a win ends.
  void Refine(const Vec* pattern, int n, int32_t spacing, int rounds) {
    int last = -1;
    for (int round = 0; round < rounds; ++round) {
      const Vec centre = BestVec;
      int won = -1;
      const int first = last < 0 ? 0 : last - 1, end = last < 0 ? n : last + 2;
      for (int k = first; k < end; ++k) {
        const int i = (k + n) % n;
        if (Try(Vec{centre.X + pattern[i].X * spacing, centre.Y + pattern[i].Y * spacing}))
          won = i;
      }
      if (won < 0) return;
      last = won;
    }
  }

  const Velmo2MotionInput& In;
  Vec Pred;
  int64_t BaseX = 0, BaseY = 0;
  Axis AxisX{}, AxisY{};
  double VectorWeight = 0, EarlyOut = 0;
  double Weight[Velmo2MotionPlanes] = {};
  bool Present[Velmo2MotionPlanes] = {};
  const uint8_t* Src[Velmo2MotionPlanes] = {};
};

// The prediction of quadrant q's vector given the differences of those already chosen: the
// decoder's own rule, so that what is costed is what will be coded.
int32_t Predicted(const Velmo2VectorNeighbours& n, const int32_t diff[4], uint32_t q) {
  int32_t out[4];
  Velmo2PredictVectors(n, false, diff, out);
  return out[q];
}

}  // namespace

uint32_t Velmo2OutsideMask(uint32_t width, uint32_t height, uint32_t mbX, uint32_t mbY) {
  uint32_t mask = 0;
  for (uint32_t q = 0; q < 4; ++q)
    if (mbX + (q & 1) * 16 >= width || mbY + (q >> 1) * 16 >= height) mask |= 1u << q;
  return mask;
}

uint32_t Velmo2VectorBits(int64_t dx, int64_t dy) {
  const auto zigzag = [](int64_t d) { return d >= 0 ? uint64_t(d) * 2 : uint64_t(-d) * 2 - 1; };
  const auto log2 = [](uint64_t z) { return uint32_t(std::bit_width(z + 1) - 1); };
  return 2 * (log2(zigzag(dx)) + log2(zigzag(dy))) + 2;
}

bool Velmo2MotionSearch(const Velmo2MotionInput& in, Velmo2MotionResult* out) {
  // Without a macroblock above, vector 1 is predicted from vector 2 when the left one is
  // there, so vector 2 is chosen first.
  const bool leftOnly = in.NeighbourX.Left && !in.NeighbourX.Above;
  const uint32_t order[4] = {0, leftOnly ? 2u : 1u, leftOnly ? 1u : 2u, 3};
  Vec candidates[12];
  size_t count = 0;
  for (const int32_t* const* n : {&in.NeighbourX.Left, &in.NeighbourX.Above}) {
    const int32_t* ys = n == &in.NeighbourX.Left ? in.NeighbourY.Left : in.NeighbourY.Above;
    if (*n && ys)
      for (int k = 0; k < 4; ++k) candidates[count++] = Vec{(*n)[k], ys[k]};
  }
  int32_t diffX[4] = {0, 0, 0, 0}, diffY[4] = {0, 0, 0, 0};
  out->Cost = 0;
  for (uint32_t q : order) {
    const Vec pred{Predicted(in.NeighbourX, diffX, q), Predicted(in.NeighbourY, diffY, q)};
    Quadrant s(in, q, pred);
    s.Search(candidates, count);
    if (!(s.Best < kNoCost)) return false;
    out->Vx[q] = s.BestVec.X;
    out->Vy[q] = s.BestVec.Y;
    out->Cost += s.Best;
    diffX[q] = int32_t(uint32_t(s.BestVec.X) - uint32_t(pred.X));
    diffY[q] = int32_t(uint32_t(s.BestVec.Y) - uint32_t(pred.Y));
    candidates[count++] = s.BestVec;
  }
  return true;
}
