#!/usr/bin/env python3
"""Rate and quality of both Velmo generations on one Y4M clip, with optional peer encoders.

For each rate (in bits per pixel) the clip's first frames are compressed by the first (/v101)
and the second (/v200) generation, and, when asked, by vpxenc (VP8, VP9) and Theora's example
encoder. Per rate the table shows the asked and achieved data rate, PSNR of Y, Cr and Cb against
the source, encode frames per second (the whole encoder run, all cores it uses) and
single-thread decode frames per second. Then the Bjontegaard rate difference of each curve
against the first generation (cubic fit of log rate against PSNR-Y over the common range).

Velmo files are decoded through the reader library by bench/reader/velmo_decode_speed, which
also writes the pictures out. Every decoded picture is compared with the source in the source's
own sample range: the Velmo generations code full-range samples, so their output is brought
back to the source's range (without rounding) before the comparison. The compressor's contrast
stretch (on by default) is switched off with /{0, so that it codes the source's own picture.

  bench/rate_quality.py --clip in.y4m [--frames 30] [--skip 0] [--switches "/M10"] [--rates 0.05,0.1,0.2,0.5]
                        [--peers [vp8,vp9,theora]] [--install-peers] [--build build]
                        [--baseline other-build] [--first-only]
  bench/rate_quality.py --selftest
"""
import argparse
import math
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

try:
    import numpy
except ImportError:  # plain Python does the sums, slowly
    numpy = None

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PEERS = ("vp8", "vp9", "theora")
SATURATED = 0.8  # achieved/asked below this leaves the point out of the rate difference
PEER_PACKAGES = ("vpx-tools", "libtheora-bin")
FORBIDDEN_PACKAGES = re.compile(r"^(ffmpeg|libav|libsw|libpostproc|gstreamer|libgstreamer)")


class BenchError(Exception):
    pass


# ---------------------------------------------------------------------------------------------
# Y4M and raw 4:2:0 pictures


class Clip:
    """A 4:2:0 Y4M file: its header fields and the byte offsets of its frames."""

    def __init__(self, path, skip=0):
        self.skip = skip
        if not os.path.isfile(path):
            raise BenchError("clip not found: %s" % path)
        self.path = path
        with open(path, "rb") as f:
            header = f.readline()
        if not header.startswith(b"YUV4MPEG2"):
            raise BenchError("%s is not a Y4M file" % path)
        self.header = header
        tags = header.decode("ascii", "replace").split()[1:]
        fields = {t[0]: t[1:] for t in tags if t}
        try:
            self.width, self.height = int(fields["W"]), int(fields["H"])
            num, den = (int(v) for v in fields.get("F", "30:1").split(":"))
        except (KeyError, ValueError):
            raise BenchError("%s: unreadable Y4M header %r" % (path, header))
        self.fps = num / den if den else 0.0
        self.rate = (num, den)
        chroma = fields.get("C", "420jpeg")
        if not chroma.startswith("420"):
            raise BenchError("%s: only 4:2:0 clips are measured (C%s)" % (path, chroma))
        self.full_range = "XCOLORRANGE=FULL" in tags
        self.frame_bytes = frame_bytes(self.width, self.height)

    def frames(self, limit=None):
        """Yields each frame's bytes (Y, Cb, Cr) after the skipped ones, at most `limit`."""
        frames = read_frames(self.path, self.width, self.height,
                             None if limit is None else limit + self.skip)
        for n, data in enumerate(frames):
            if n >= self.skip:
                yield data


def frame_bytes(width, height):
    cw, ch = (width + 1) // 2, (height + 1) // 2
    return width * height + 2 * cw * ch


def read_frames(path, width, height, limit=None):
    """Frames of a Y4M file, or of a raw I420 file when it has no Y4M header. A Y4M file whose
    frames are larger (a peer that pads to its block size) gives the centred picture, as the
    peers place it (offsets rounded down to even)."""
    count = 0
    with open(path, "rb") as f:
        y4m = f.read(9) == b"YUV4MPEG2"
        f.seek(0)
        stored_w, stored_h = width, height
        if y4m:
            fields = {t[:1]: t[1:] for t in f.readline().decode("ascii", "replace").split()[1:]}
            stored_w, stored_h = int(fields.get("W", width)), int(fields.get("H", height))
            if stored_w < width or stored_h < height:
                raise BenchError("%s holds %dx%d pictures, not %dx%d" % (path, stored_w, stored_h,
                                                                        width, height))
        size = frame_bytes(stored_w, stored_h)
        while limit is None or count < limit:
            if y4m:
                marker = f.readline()
                if not marker:
                    return
                if not marker.startswith(b"FRAME"):
                    raise BenchError("%s: frame %d has no FRAME marker" % (path, count + 1))
            data = f.read(size)
            if len(data) < size:
                return  # a cut-short last frame is left out, as the compressor does
            if (stored_w, stored_h) != (width, height):
                data = crop_frame(data, stored_w, stored_h, width, height)
            yield data
            count += 1


def crop_frame(data, stored_w, stored_h, width, height):
    """The centred width x height picture of a larger 4:2:0 frame."""
    x, y = (stored_w - width) // 2 & ~1, (stored_h - height) // 2 & ~1
    out = bytearray()
    planes = ((stored_w, stored_h, width, height, x, y, 0),)
    scw, sch = (stored_w + 1) // 2, (stored_h + 1) // 2
    cw, ch = (width + 1) // 2, (height + 1) // 2
    luma = stored_w * stored_h
    planes += ((scw, sch, cw, ch, x // 2, y // 2, luma), (scw, sch, cw, ch, x // 2, y // 2,
                                                        luma + scw * sch))
    for sw, _, w, h, px, py, start in planes:
        for row in range(py, py + h):
            at = start + row * sw + px
            out += data[at:at + w]
    return bytes(out)


def write_clip(clip, path, frames):
    """The clip's first `frames` frames as a Y4M file; returns how many were written."""
    count = 0
    with open(path, "wb") as out:
        out.write(clip.header)
        for data in clip.frames(frames):
            out.write(b"FRAME\n")
            out.write(data)
            count += 1
    return count


def write_sample(path, width, height, frames):
    """A small moving test picture (limited range) for the self-test."""
    cw, ch = (width + 1) // 2, (height + 1) // 2
    with open(path, "wb") as out:
        out.write(b"YUV4MPEG2 W%d H%d F24:1 Ip A1:1 C420jpeg XCOLORRANGE=LIMITED\n" % (width, height))
        for n in range(frames):
            y = bytes(16 + ((x * 7 + r * 3 + n * 5) ^ (x * r // 5)) % 220
                      for r in range(height) for x in range(width))
            cb = bytes(128 + int(60 * math.sin((x + n) / 4.0)) for r in range(ch) for x in range(cw))
            cr = bytes(128 + int(60 * math.cos((r - n) / 3.0)) for r in range(ch) for x in range(cw))
            out.write(b"FRAME\n" + y + cb + cr)


# ---------------------------------------------------------------------------------------------
# PSNR


def range_maps(decoded_full, source_full):
    """Per-plane (scale, offset) that bring decoded samples into the source's range."""
    if decoded_full == source_full:
        return ((1.0, 0.0), (1.0, 0.0))
    if decoded_full:  # full range into limited range
        return ((219.0 / 255.0, 16.0), (224.0 / 255.0, 128.0 - 128.0 * 224.0 / 255.0))
    return ((255.0 / 219.0, -16.0 * 255.0 / 219.0), (255.0 / 224.0, 128.0 - 128.0 * 255.0 / 224.0))


def squared_error(ref, dec, scale, offset):
    if numpy is not None:
        a = numpy.frombuffer(ref, numpy.uint8).astype(numpy.float64)
        b = numpy.frombuffer(dec, numpy.uint8).astype(numpy.float64) * scale + offset
        d = a - b
        return float(numpy.dot(d, d))
    return sum((r - (d * scale + offset)) ** 2 for r, d in zip(ref, dec))


def psnr_of(total, samples):
    if samples == 0:
        return float("nan")
    mse = total / samples
    return 99.0 if mse <= 1e-12 else 10.0 * math.log10(255.0 * 255.0 / mse)


def measure_psnr(clip, frames, decoded_path, decoded_full):
    """PSNR of Y, Cr and Cb of a decoded file (Y4M or raw I420) against the clip."""
    w, h = clip.width, clip.height
    ysize, csize = w * h, ((w + 1) // 2) * ((h + 1) // 2)
    refs = clip.frames(frames)
    luma_map, chroma_map = range_maps(decoded_full, clip.full_range)
    sums = [0.0, 0.0, 0.0]  # Y, Cb, Cr as stored
    count = 0
    for ref, dec in zip(refs, read_frames(decoded_path, w, h, frames)):
        planes = ((0, ysize), (ysize, ysize + csize), (ysize + csize, ysize + 2 * csize))
        for i, (start, end) in enumerate(planes):
            scale, offset = luma_map if i == 0 else chroma_map
            sums[i] += squared_error(ref[start:end], dec[start:end], scale, offset)
        count += 1
    if count != frames:
        raise BenchError("%s holds %d of the %d frames" % (decoded_path, count, frames))
    return (psnr_of(sums[0], ysize * count), psnr_of(sums[2], csize * count),
            psnr_of(sums[1], csize * count))


# ---------------------------------------------------------------------------------------------
# Bjontegaard rate difference


def polyfit(xs, ys, degree):
    """Least-squares polynomial coefficients, lowest power first (normal equations)."""
    n = degree + 1
    a = [[sum(x ** (i + j) for x in xs) for j in range(n)] for i in range(n)]
    b = [sum(y * x ** i for x, y in zip(xs, ys)) for i in range(n)]
    for col in range(n):
        pivot = max(range(col, n), key=lambda r: abs(a[r][col]))
        if abs(a[pivot][col]) < 1e-300:
            raise BenchError("the rate curve cannot be fitted (repeated points)")
        a[col], a[pivot] = a[pivot], a[col]
        b[col], b[pivot] = b[pivot], b[col]
        for r in range(n):
            if r != col:
                f = a[r][col] / a[col][col]
                a[r] = [v - f * p for v, p in zip(a[r], a[col])]
                b[r] -= f * b[col]
    return [b[i] / a[i][i] for i in range(n)]


def integral(coeffs, lo, hi):
    return sum(c * (hi ** (i + 1) - lo ** (i + 1)) / (i + 1) for i, c in enumerate(coeffs))


def bd_rate(reference, test):
    """Average rate difference (per cent) of `test` against `reference` at equal PSNR; each is
    a list of (rate, psnr). Cubic fit of log rate against PSNR over the common PSNR range."""
    if len(reference) < 4 or len(test) < 4:
        raise BenchError("the Bjontegaard difference needs four points per curve that met "
                         "their rate")
    fits = []
    for curve in (reference, test):
        psnr = [p for _, p in curve]
        fits.append((polyfit(psnr, [math.log10(r) for r, _ in curve], 3), min(psnr), max(psnr)))
    lo, hi = max(fits[0][1], fits[1][1]), min(fits[0][2], fits[1][2])
    if hi <= lo:
        raise BenchError("the curves share no PSNR range")
    mean = (integral(fits[1][0], lo, hi) - integral(fits[0][0], lo, hi)) / (hi - lo)
    return (10.0 ** mean - 1.0) * 100.0


# ---------------------------------------------------------------------------------------------
# Encoders


def run(cmd, log, cwd=None, env=None):
    """Runs a command, its output to `log`; returns the wall-clock seconds or raises."""
    start = time.perf_counter()
    with open(log, "wb") as out:
        rc = subprocess.call(cmd, stdout=out, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                             cwd=cwd, env=env)
    seconds = time.perf_counter() - start
    if rc != 0:
        with open(log, "rb") as f:
            tail = f.read().decode("utf-8", "replace").strip().splitlines()[-3:]
        raise BenchError("%s failed (exit code %d): %s" % (os.path.basename(cmd[0]), rc,
                                                           " / ".join(tail)))
    return seconds


def best_time(cmd, log, passes=3):
    return min(run(cmd, log) for _ in range(passes))


class Velmo:
    """One generation of the compressor, measured through the reader library."""

    def __init__(self, name, version, suffix, build, switches=()):
        self.name, self.version, self.suffix = name, version, suffix
        self.switches = list(switches)
        self.program = os.path.join(build, "src", "main", "ORNVideo64")
        self.decoder = os.path.join(build, "bench", "reader", "velmo_decode_speed")
        for tool, target in ((self.program, "ORNVideo64"), (self.decoder, "velmo_decode_speed")):
            if not os.access(tool, os.X_OK):
                raise BenchError("missing %s (build the target %s)" % (tool, target))

    def measure(self, clip, frames, source, rate, work):
        out = os.path.join(work, "%s_%d%s" % (self.name, rate, self.suffix))
        env = dict(os.environ, XDG_CONFIG_HOME=os.path.join(work, "config"), ORN_CONSOLE="1")
        log = out + ".log"
        encode = run([self.program, "Velmoc", source, out, "/v%d" % self.version, "/D%d" % rate,
                      "/{0"] + self.switches,
                     log, env=env)
        with open(log, "rb") as f:
            own = parse_final(f.read().decode("utf-8", "replace"))
        decoded = out + ".y4m"
        line = subprocess.run([self.decoder, out, "--y4m", decoded], capture_output=True,
                              text=True)
        if line.returncode != 0:
            raise BenchError("decoding %s failed: %s" % (out, line.stderr.strip()))
        fields = dict(zip(line.stdout.split()[0::2], line.stdout.split()[1::2]))
        if int(fields["frames"]) != frames:
            raise BenchError("%s holds %s frames, not %d" % (out, fields["frames"], frames))
        full = fields["fullrange"] == "1"
        psnr = measure_psnr(clip, frames, decoded, full)
        os.remove(decoded)
        return Result(os.path.getsize(out), encode, float(fields["fps"]), psnr, own)


def parse_final(text):
    m = re.search(r"Final: \d+ bytes.*PSNR Y ([\d.]+) dB, Cr ([\d.]+) dB, Cb ([\d.]+) dB", text)
    return tuple(float(v) for v in m.groups()) if m else None


class Peer:
    """A peer encoder from Debian, run on the same frames as a measuring stick."""

    def __init__(self, name):
        self.name = name
        tools = {"vp8": ("vpxenc", "vpxdec"), "vp9": ("vpxenc", "vpxdec"),
                 "theora": ("theora_encoder_example", "theora_dump_video")}[name]
        self.encoder, self.decoder = (shutil.which(t) for t in tools)
        if not self.encoder or not self.decoder:
            raise BenchError("%s: %s not installed (package %s; --install-peers installs it)"
                             % (name, " and ".join(tools),
                                "libtheora-bin" if name == "theora" else "vpx-tools"))

    def measure(self, clip, frames, source, rate, work):
        kbps = max(1, int(round(rate * 8 / 1000.0)))
        if self.name == "theora":
            out = os.path.join(work, "theora_%d.ogv" % rate)
            encode = self.encode_theora(source, out, kbps)
            decode = [self.decoder, "-o"]
        else:
            out = os.path.join(work, "%s_%d.ivf" % (self.name, rate))
            encode = run([self.encoder, "--codec=" + self.name, "--good", "--cpu-used=2",
                          "--end-usage=vbr", "--target-bitrate=%d" % kbps,
                          "--threads=%d" % (os.cpu_count() or 1), "--ivf", "-o", out, source],
                         out + ".log")
            decode = [self.decoder, "--i420", "-o"]
        decoded = out + ".yuv"
        run(decode + [decoded, out], out + ".dec.log")
        psnr = measure_psnr(clip, frames, decoded, clip.full_range)
        os.remove(decoded)
        seconds = best_time(decode + [os.devnull, out], out + ".dec.log")
        return Result(os.path.getsize(out), encode, frames / seconds, psnr, None)

    def encode_theora(self, source, out, kbps):
        try:
            return run([self.encoder, "-V", str(kbps), "--two-pass", "-o", out, source], out + ".log")
        except BenchError:
            return run([self.encoder, "-V", str(kbps), "-o", out, source], out + ".log")


class Result:
    def __init__(self, size, encode_seconds, decode_fps, psnr, own):
        self.size, self.encode_seconds, self.decode_fps = size, encode_seconds, decode_fps
        self.psnr, self.own = psnr, own


def fmt3(values):
    return "/".join("%.2f" % v for v in values)


def install_peers():
    """Installs the peer packages after checking that apt's plan pulls in no media framework."""
    sudo = [] if os.geteuid() == 0 else ["sudo"]
    env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    plan = subprocess.run(sudo + ["apt-get", "install", "-s", "-y", "--no-install-recommends"]
                          + list(PEER_PACKAGES), capture_output=True, text=True, env=env)
    if plan.returncode != 0:
        raise BenchError("apt-get cannot plan the peers: %s" % plan.stderr.strip())
    pulled = [line.split()[1] for line in plan.stdout.splitlines() if line.startswith("Inst ")]
    bad = [p for p in pulled if FORBIDDEN_PACKAGES.match(p)]
    if bad:
        raise BenchError("installing the peers would pull in %s; not installing" % " ".join(bad))
    if pulled:
        subprocess.check_call(sudo + ["apt-get", "install", "-y", "-q", "--no-install-recommends"]
                              + list(PEER_PACKAGES), env=env)


# ---------------------------------------------------------------------------------------------
# The benchmark


def benchmark(clip_path, frames, rates, peers, build, out=sys.stdout, skip=0, switches=(),
              baseline=None, second=True):
    """Measures every encoder at every rate and prints the table; returns {name: [points]}.
    `baseline` names another build folder whose first generation is measured as velmo1-base,
    for a before and after; `second` False leaves the second generation out."""
    clip = Clip(clip_path, skip)
    encoders = [Velmo("velmo1", 101, ".vlm", build, switches)]
    if baseline:
        encoders.append(Velmo("velmo1-base", 101, ".vlm", baseline, switches))
    if second:
        encoders.append(Velmo("velmo2", 200, ".vm2", build, switches))
    encoders += [Peer(name) for name in peers]
    work = tempfile.mkdtemp(prefix="rate_quality.")
    try:
        source = os.path.join(work, "source.y4m")
        frames = write_clip(clip, source, frames)
        if frames == 0:
            raise BenchError("%s holds no complete frame" % clip_path)
        pixels = clip.width * clip.height
        print("Clip: %s, %dx%d, %d frames from frame %d at %.3f frames per second (%s range)" % (
            clip_path, clip.width, clip.height, frames, skip, clip.fps,
            "full" if clip.full_range else "limited"), file=out)
        print("Machine: %d cores, %s" % (os.cpu_count() or 1, os.uname().machine), file=out)
        print(file=out)
        print("| encoder | asked bpp | asked B/s | achieved B/s | achieved/asked | PSNR Y | PSNR Cr "
              "| PSNR Cb | encoder's own PSNR Y/Cr/Cb | encode fps | decode fps (1 thread) |",
              file=out)
        print("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|", file=out)
        curves = {}
        for enc in encoders:
            for bpp in rates:
                asked = int(round(bpp * pixels * clip.fps / 8.0))
                try:
                    r = enc.measure(clip, frames, source, asked, work)
                except BenchError as e:
                    print("| %s | %.3f | %d | failed: %s | | | | | | | |" % (enc.name, bpp, asked, e),
                          file=out)
                    continue
                achieved = r.size * clip.fps / frames
                print("| %s | %.3f | %d | %.0f | %.3f | %.2f | %.2f | %.2f | %s | %.2f | %.0f |" % (
                    enc.name, bpp, asked, achieved, achieved / asked, r.psnr[0], r.psnr[1],
                    r.psnr[2], fmt3(r.own) if r.own else "-", frames / r.encode_seconds,
                    r.decode_fps), file=out)
                # An encoder that stopped well short of the asked rate had reached its best
                # picture: the point repeats the one below it and would bend the fit.
                if achieved >= SATURATED * asked:
                    curves.setdefault(enc.name, []).append((achieved, r.psnr[0]))
                out.flush()
        print(file=out)
        for name, points in curves.items():
            if name == "velmo1":
                continue
            try:
                diff = bd_rate(curves.get("velmo1", []), points)
                print("Bjontegaard rate difference of %s against velmo1: %+.1f%%" % (name, diff),
                      file=out)
            except BenchError as e:
                print("Bjontegaard rate difference of %s against velmo1: not found (%s)" % (name, e),
                      file=out)
        return curves
    finally:
        shutil.rmtree(work, ignore_errors=True)


def selftest(build):
    """A few seconds on a tiny generated clip, plus checks of the sums."""
    # A curve 20% cheaper at every PSNR is 20% cheaper on average.
    ref = [(1000.0, 30.0), (2000.0, 33.0), (4000.0, 36.5), (8000.0, 39.0)]
    cheaper = [(r * 0.8, p) for r, p in ref]
    assert abs(bd_rate(ref, cheaper) + 20.0) < 1e-6, bd_rate(ref, cheaper)
    assert abs(bd_rate(ref, ref)) < 1e-9
    # Known errors: every luma sample off by 2 (MSE 4), chroma exact.
    assert abs(psnr_of(4.0 * 100, 100) - 10 * math.log10(255 * 255 / 4.0)) < 1e-12
    assert abs(squared_error(bytes([10, 20]), bytes([12, 18]), 1.0, 0.0) - 8.0) < 1e-12
    # Full-range 255 maps onto limited-range 235, and chroma keeps its centre.
    (ls, lo), (cs, co) = range_maps(True, False)
    assert abs(255 * ls + lo - 235.0) < 1e-9 and abs(128 * cs + co - 128.0) < 1e-9
    work = tempfile.mkdtemp(prefix="rate_quality_selftest.")
    try:
        clip = os.path.join(work, "sample.y4m")
        write_sample(clip, 128, 96, 6)
        import io
        text = io.StringIO()
        curves = benchmark(clip, 6, [0.3, 0.8, 1.6, 3.0], [], build, out=text)
        print(text.getvalue())
        for name in ("velmo1", "velmo2"):
            points = curves.get(name, [])
            assert len(points) == 4, "%s: %d of 4 rates measured" % (name, len(points))
            psnrs = [p for _, p in sorted(points)]
            assert psnrs[-1] > psnrs[0], "%s: more bits gave no better picture" % name
        assert "Bjontegaard rate difference of velmo2 against velmo1: " in text.getvalue()
    finally:
        shutil.rmtree(work, ignore_errors=True)
    print("selftest passed")


def parse_args(argv):
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("--clip", help="a 4:2:0 Y4M clip")
    p.add_argument("--frames", type=int, default=30, help="frames from the clip's start (30)")
    p.add_argument("--switches", default="", help="more compressor switches for both generations")
    p.add_argument("--skip", type=int, default=0, help="frames left out at the clip's start (0)")
    p.add_argument("--rates", default="0.05,0.1,0.2,0.5",
                   help="bits per pixel, comma-separated (0.05,0.1,0.2,0.5)")
    p.add_argument("--peers", nargs="?", const=",".join(PEERS), default="",
                   help="peer encoders to measure too: vp8,vp9,theora (all when given bare)")
    p.add_argument("--install-peers", action="store_true",
                   help="apt-get install %s first" % " ".join(PEER_PACKAGES))
    p.add_argument("--build", default=os.path.join(ROOT, "build"), help="the build folder")
    p.add_argument("--baseline", help="another build folder: its first generation as velmo1-base")
    p.add_argument("--first-only", action="store_true", help="leave the second generation out")
    p.add_argument("--selftest", action="store_true", help="a quick run on a generated clip")
    args = p.parse_args(argv)
    try:
        args.rates = [float(v) for v in args.rates.split(",") if v]
    except ValueError:
        p.error("--rates takes numbers such as 0.05,0.1,0.2,0.5")
    if not args.rates or any(r <= 0 for r in args.rates):
        p.error("--rates takes positive bits per pixel")
    args.peers = [v for v in args.peers.split(",") if v]
    unknown = [v for v in args.peers if v not in PEERS]
    if unknown:
        p.error("unknown peer %s (known: %s)" % (", ".join(unknown), ", ".join(PEERS)))
    if args.frames < 1:
        p.error("--frames takes a positive count")
    if not args.selftest and not args.clip:
        p.error("--clip is required (or --selftest)")
    return args


def main(argv):
    args = parse_args(argv)
    try:
        if args.selftest:
            selftest(args.build)
            return 0
        if args.install_peers:
            install_peers()
        if numpy is None:
            print("note: numpy is missing; plain Python computes PSNR (slowly)", file=sys.stderr)
        benchmark(args.clip, args.frames, args.rates, args.peers, args.build, skip=args.skip,
                  switches=args.switches.split(), baseline=args.baseline,
                  second=not args.first_only)
        return 0
    except BenchError as e:
        print("rate_quality: %s" % e, file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
