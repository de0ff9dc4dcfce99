#!/usr/bin/env python3
"""Playback speed of the player on a display, from its summary.

A 4:2:0 Y4M clip is scaled by our own compressor to each size asked and compressed with each
generation (/v101 to .vlm, /v200 to .vm2). Each file is then played as fast as possible (/F)
with the summary (/S) on the 2-D path (/!1) and the OpenGL path (/!2), with 1 and 2 async
decoding threads, through bench/player_play/player_play_run under xvfb-run (Mesa's software
OpenGL there). The table shows, per run, the path that drew, the frames per second obtained and
the summary's shares of the playing time for decoding video, blitting and reading.

With --shots DIR, one frame of the first file is also saved as a PNG from each path's window.

  bench/player_play.py [--clip launch.y4m] [--frames 120] [--sizes 1280x720,1920x1080]
                       [--build build] [--work DIR] [--shots DIR]

Build the targets ORNVideo64 and player_play_run first (player_play_run is in bench/, which is
configured with ORN_BENCH=ON). The clips stay in the work folder (a temporary one by default,
removed at the end); they are media and are not to be committed.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_CLIP = "/work/media/video/launch/launch.y4m"
GENERATIONS = (("first", 101, ".vlm"), ("second", 200, ".vm2"))
PATHS = ((1, "2-D"), (2, "OpenGL"))
THREADS = (1, 2)
SCREEN = "-screen 0 2048x1280x24"


class BenchError(Exception):
    pass


def run(cmd, env=None):
    done = subprocess.run(cmd, capture_output=True, text=True, env=env,
                          stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        tail = (done.stdout + done.stderr).strip().splitlines()[-3:]
        raise BenchError("%s failed (exit code %d): %s" % (os.path.basename(cmd[0]),
                                                           done.returncode, " / ".join(tail)))
    return done.stdout


def compress(program, clip, size, frames, generation, work):
    name, version, suffix = generation
    width, height = size
    out = os.path.join(work, "clip_%dx%d_%s%s" % (width, height, name, suffix))
    env = dict(os.environ, XDG_CONFIG_HOME=os.path.join(work, "config"), ORN_CONSOLE="1")
    run([program, "Velmoc", clip, out, "/v%d" % version, "/(%d" % width, "/)%d" % height,
         "/E%d" % frames, "/O"], env=env)
    if not os.path.isfile(out):
        raise BenchError("the compressor wrote no %s" % out)
    return out


def number(pattern, text):
    m = re.search(pattern, text)
    if not m:
        raise BenchError("no %r in the summary:\n%s" % (pattern, text))
    return float(m.group(1))


def play(runner, path, draw, threads, shot=None):
    cmd = ["xvfb-run", "-a", "-s", SCREEN, runner, "--threads", str(threads)]
    cmd += ["--shot", str(shot[0]), shot[1], path] if shot else [path, "/F", "/S"]
    text = run(cmd + ["/!%d" % draw])
    if shot:
        return None
    return {
        "path": re.search(r"Path: (\S+)", text).group(1),
        "frames": int(number(r"Total frames played: (\d+)", text)),
        "fps": number(r"Frame rate obtained: ([\d.]+)", text),
        "video": number(r"Percentage spent decompressing video: ([\d.]+)", text),
        "blit": number(r"Percentage spent blitting: ([\d.]+)", text),
        "read": number(r"Percentage spent reading: ([\d.]+)", text),
        "skipped": int(number(r"Skipped frames: (\d+)", text)),
    }


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--clip", default=DEFAULT_CLIP)
    parser.add_argument("--frames", type=int, default=120)
    parser.add_argument("--sizes", default="1280x720,1920x1080")
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--work")
    parser.add_argument("--shots")
    args = parser.parse_args()
    program = os.path.join(args.build, "src", "main", "ORNVideo64")
    runner = os.path.join(args.build, "bench", "player_play", "player_play_run")
    for tool, target in ((program, "ORNVideo64"), (runner, "player_play_run")):
        if not os.access(tool, os.X_OK):
            raise BenchError("missing %s (build the target %s)" % (tool, target))
    if not shutil.which("xvfb-run"):
        raise BenchError("xvfb-run is needed (package xvfb)")
    if not os.path.isfile(args.clip):
        raise BenchError("clip not found: %s" % args.clip)
    sizes = [tuple(int(v) for v in s.split("x")) for s in args.sizes.split(",")]
    work = args.work or tempfile.mkdtemp(prefix="player_play_")
    os.makedirs(work, exist_ok=True)
    try:
        rows = []
        for size in sizes:
            for generation in GENERATIONS:
                path = compress(program, args.clip, size, args.frames, generation, work)
                megabytes = os.path.getsize(path) / 1e6
                for draw, _ in PATHS:
                    for threads in THREADS:
                        r = play(runner, path, draw, threads)
                        rows.append((size, generation[0], megabytes, threads, r))
                        print("%dx%d %s /!%d %d: %.1f fps" % (size[0], size[1], generation[0],
                                                              draw, threads, r["fps"]),
                              file=sys.stderr)
                if args.shots and size == sizes[0]:
                    os.makedirs(args.shots, exist_ok=True)
                    for draw, label in PATHS:
                        png = os.path.join(args.shots, "%s_%s.png" % (generation[0], label))
                        play(runner, path, draw, 2, shot=(args.frames // 2, png))
        print("| size | generation | MB | path | async threads | frames | fps obtained | "
              "video decoding % | blitting % | reading % | skipped |")
        print("|---|---|---|---|---|---|---|---|---|---|---|")
        for size, generation, megabytes, threads, r in rows:
            print("| %dx%d | %s | %.2f | %s | %d | %d | %.1f | %.1f | %.1f | %.1f | %d |" % (
                size[0], size[1], generation, megabytes, r["path"], threads, r["frames"],
                r["fps"], r["video"], r["blit"], r["read"], r["skipped"]))
    finally:
        if not args.work:
            shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    try:
        main()
    except BenchError as e:
        print("player_play: %s" % e, file=sys.stderr)
        sys.exit(1)
