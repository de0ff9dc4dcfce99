# The two entry points of a fresh Debian 12 machine:
#   make demo   installs what is missing, builds, and runs the main job on a built-in sample;
#               with a display ($DISPLAY or $WAYLAND_DISPLAY) it ends by playing the sample
#               for a few seconds, and says that it skipped that step without one
#   make test   installs what is missing, builds, and runs the whole suite (plain and sanitized)
BUILD       ?= build
ASAN_BUILD  ?= build-asan
FUZZ_BUILD  ?= build-fuzz
TSAN_BUILD  ?= build-tsan
JOBS        ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps build demo test check-layers test-plain test-sanitize test-thread bench fuzz clean

all: build

deps:
	./scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	./scripts/demo.sh $(BUILD)

test: deps check-layers test-plain test-sanitize test-thread

# Every include and library link points down the layers (see the script for the table).
check-layers:
	./scripts/check-layers.sh

test-plain:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS)
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# clang with ASan + UBSan; the fuzz targets are built here too and CTest runs each one for a few
# seconds over its seeds (longer runs: make fuzz).
test-sanitize:
	CC=clang CXX=clang++ cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORN_SANITIZE=ON -DORN_FUZZ=ON -DORN_FUZZ_SMOKE_SECONDS=5 -DORN_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

# clang with ThreadSanitizer, for the reader's threads only: the read-ahead thread, opens and
# closes while it reads, the sound service thread, the async slice workers and the player loop
# that drives them. Only those test programs are built, and only their tests (label "threads")
# run.
TSAN_TESTS = reader_io_thread_test reader_io_open_test reader_velmo_sound_play_test \
             reader_velmo_async_test player_loop_test
test-thread:
	CC=clang CXX=clang++ cmake -S . -B $(TSAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORN_TSAN=ON -DORN_TESTS=ON -DORN_FUZZ=OFF -DORN_BENCH=OFF $(CMAKE_FLAGS)
	ninja -C $(TSAN_BUILD) -j $(JOBS) $(TSAN_TESTS)
	ctest --test-dir $(TSAN_BUILD) -L threads --output-on-failure -j $(JOBS)

bench: build
	./scripts/bench.sh $(BUILD)

# Longer fuzzing sessions: make fuzz FUZZ_SECONDS=600
FUZZ_SECONDS ?= 60
fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORN_FUZZ=ON -DORN_BENCH=OFF -DORN_TESTS=OFF
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	./scripts/fuzz.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(TSAN_BUILD)
