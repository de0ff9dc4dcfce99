#!/usr/bin/env python3
"""Where the first-generation encoder's bits go, from its statistics file.

The compressor appends one line per plane and frame to the file named by ORN_VELMO1_STATS:

  ORN_VELMO1_STATS=bits.txt ORNVideo64 Velmoc in.y4m out.vlm /v101 /D200000 /{0
  bench/velmo1_bits.py bits.txt [--frames]

The summary gives the bytes by frame type and plane, the bits of each bundle of the stream, and
the blocks of each kind with the bits the allocation planned for them (8x8 blocks by kind, 16x16
blocks by sub-kind), by frame type. With --frames, each frame's budget, bytes and PSNR-Y too.
"""
import math
import sys
from collections import defaultdict


def parse(path):
    rows = []
    with open(path) as f:
        for line in f:
            fields = dict(item.split("=", 1) for item in line.split())
            rows.append(fields)
    return rows


def pair(text):
    a, b = text.split("/")
    return int(a), int(b)


def psnr(sse, samples):
    return 99.0 if sse == 0 else 10 * math.log10(255.0 * 255.0 * samples / sse)


def summarise(rows, per_frame=False, out=sys.stdout):
    kind_of = lambda r: "key" if r["key"] == "1" else "inter"
    frames = defaultdict(lambda: {"bytes": 0})
    plane_bytes = defaultdict(int)
    bundles = defaultdict(lambda: [0, 0])
    kinds = defaultdict(lambda: [0, 0])
    frame_types = defaultdict(set)
    for r in rows:
        t, n = kind_of(r), int(r["frame"])
        frame_types[t].add(n)
        f = frames[n]
        f["key"], f["budget"] = t, int(r["budget"])
        f["bytes"] += int(r["bytes"])
        if r["plane"] == "Y":
            f["psnr"] = psnr(int(r["sse"]), int(r["samples"]))
        plane_bytes[(t, r["plane"])] += int(r["bytes"])
        for key, value in r.items():
            if key.startswith("bundle."):
                bits, count = pair(value)
                b = bundles[(t, key[7:])]
                b[0] += bits
                b[1] += count
            elif key.startswith("k8.") or key.startswith("k16."):
                count, bits = pair(value)
                k = kinds[(t, r["plane"], key)]
                k[0] += count
                k[1] += bits
    total = sum(plane_bytes.values())
    print("Frames: %s" % ", ".join("%d %s" % (len(v), k) for k, v in sorted(frame_types.items())),
          file=out)
    print("\n| frame type | plane | bytes | share |\n|---|---|---:|---:|", file=out)
    for (t, p), b in sorted(plane_bytes.items()):
        print("| %s | %s | %d | %.1f%% |" % (t, p, b, 100.0 * b / total), file=out)
    print("\n| frame type | bundle | bits | values | share of all bits |\n|---|---|---:|---:|---:|",
          file=out)
    for (t, name), (bits, count) in sorted(bundles.items()):
        if count:
            print("| %s | %s | %d | %d | %.1f%% |" % (t, name, bits, count, 100.0 * bits / (8 * total)),
                  file=out)
    planned = sum(b for _, b in kinds.values()) or 1
    print("\n| frame type | plane | block kind | blocks | planned bits | share of planned |\n"
          "|---|---|---|---:|---:|---:|", file=out)
    for (t, p, k), (count, bits) in sorted(kinds.items()):
        print("| %s | %s | %s | %d | %d | %.1f%% |" % (t, p, k, count, bits, 100.0 * bits / planned),
              file=out)
    if per_frame:
        print("\n| frame | type | budget | bytes | PSNR-Y |\n|---:|---|---:|---:|---:|", file=out)
        for n in sorted(frames):
            f = frames[n]
            print("| %d | %s | %d | %d | %.2f |" % (n, f["key"], f["budget"], f["bytes"],
                                                  f.get("psnr", float("nan"))), file=out)


def main(argv):
    if not argv or argv[0].startswith("-"):
        print(__doc__, file=sys.stderr)
        return 2
    summarise(parse(argv[0]), "--frames" in argv[1:])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
