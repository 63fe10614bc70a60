# Thin wrapper around CMake and CTest. Extra configure flags go in CMAKE_ARGS, for example
#   make test CMAKE_ARGS="-DQUORVANE_WERROR=ON -DQUORVANE_DATA_DIR=/path/to/data"
#
# The engine alone, the way OpenBench workers build it:  make -j EXE=<name> [CXX=<compiler>]
# (no GoogleTest needed; the binary lands at ./<name>).
BUILD ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
EXE_BUILD ?= build-exe
CMAKE_ARGS ?=
PERFT_LIMIT ?= 2000000
CLANG_FORMAT ?= clang-format

PGO_BUILD ?= build-pgo
KIWIPETE = r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1

.PHONY: all build run test bench pgo sanitize asan tsan format clean exe release release-check \
	wasm wasm-check

.PHONY: fuzz fuzz-coverage

ifdef EXE
all: exe
else
all: build
endif

# A compiler named on the command line or in the environment is the one CMake uses.
ifneq ($(origin CXX),default)
EXE_COMPILER = -DCMAKE_CXX_COMPILER=$(CXX)
endif

# On Windows (MSYS2 or similar) the engine and the copy end in .exe.
ifeq ($(OS),Windows_NT)
EXE_SUFFIX = .exe
endif
EXE_TARGET = $(patsubst %$(EXE_SUFFIX),%,$(or $(EXE),quorvane))$(EXE_SUFFIX)

exe:
	cmake -S . -B $(EXE_BUILD) -DCMAKE_BUILD_TYPE=Release -DQUORVANE_TESTS=OFF \
	    -DQUORVANE_BENCH=OFF -DQUORVANE_TUNER=OFF $(EXE_COMPILER) $(CMAKE_ARGS)
	cmake --build $(EXE_BUILD) -j$(JOBS) --target quorvane
	cp $(EXE_BUILD)/quorvane$(EXE_SUFFIX) $(EXE_TARGET)

# dist/: Linux x86-64 (three levels), Linux aarch64 and Windows x86-64 (two levels), static,
# with SHA256SUMS; release-check runs each one's checks natively, under wine or under qemu.
release:
	JOBS=$(JOBS) CMAKE_ARGS="$(CMAKE_ARGS)" tools/release.sh build

release-check:
	JOBS=$(JOBS) CMAKE_ARGS="$(CMAKE_ARGS)" tools/release.sh check

# dist/web/: the engine compiled to WebAssembly with Debian's emscripten (build-wasm/, one
# job: its compiles are heavy), for the page's web worker and as a node console;
# wasm-check runs the console's bench signature and the protocol tests against it.
wasm:
	JOBS=1 CMAKE_ARGS="$(CMAKE_ARGS)" tools/wasm.sh build

wasm-check:
	BUILD=$(BUILD) CMAKE_ARGS="$(CMAKE_ARGS)" tools/wasm.sh check

build:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_ARGS)
	cmake --build $(BUILD) -j$(JOBS)

run: build
	./$(BUILD)/quorvane

test: build
	ctest --test-dir $(BUILD) -j$(JOBS) --output-on-failure

bench: build
	./$(BUILD)/quorvane_bench

# Profile-guided build of the engine alone in $(PGO_BUILD): an instrumented build, "bench"
# and two perfts as the training run, then the rebuild with that profile (the same folder, so
# the compiler finds each object's profile beside it).
pgo:
	cmake -S . -B $(PGO_BUILD) -DCMAKE_BUILD_TYPE=Release -DQUORVANE_TESTS=OFF -DQUORVANE_BENCH=OFF \
	    -DQUORVANE_PGO=generate $(CMAKE_ARGS)
	find $(PGO_BUILD) -name '*.gcda' -delete
	cmake --build $(PGO_BUILD) -j$(JOBS) --target quorvane
	printf 'bench\nperft 6\nposition fen $(KIWIPETE)\nperft 5\nquit\n' \
	    | QUORVANE_HASH_LIMIT_MB=16 ./$(PGO_BUILD)/quorvane >/dev/null
	cmake -S . -B $(PGO_BUILD) -DQUORVANE_PGO=use
	cmake --build $(PGO_BUILD) -j$(JOBS) --target quorvane
	./$(PGO_BUILD)/quorvane bench 2>&1 | tail -2

# ASan + UBSan over the whole suite (perft limited to small cases), then ThreadSanitizer
# over the threaded suites. Any sanitizer report aborts the test that raised it.
sanitize: asan tsan

asan:
	cmake --preset asan $(CMAKE_ARGS)
	cmake --build --preset asan -j$(JOBS)
	QUORVANE_PERFT_LIMIT=$(PERFT_LIMIT) ctest --preset asan -j$(JOBS)

# Coverage-guided fuzzing (tools/fuzz.sh): the harnesses of tests/fuzz/ built with clang's
# libFuzzer, ASan and UBSan in build-fuzz/, each run FUZZ_SECONDS on its corpus, one at a time;
# fuzz-coverage: llvm-cov line coverage of each harness's code on its corpus.
FUZZ_SECONDS ?= 60
fuzz:
	FUZZ_SECONDS=$(FUZZ_SECONDS) JOBS=$(JOBS) CMAKE_ARGS="$(CMAKE_ARGS)" tools/fuzz.sh run

fuzz-coverage:
	JOBS=$(JOBS) CMAKE_ARGS="$(CMAKE_ARGS)" tools/fuzz.sh coverage

tsan:
	cmake --preset tsan $(CMAKE_ARGS)
	cmake --build --preset tsan -j$(JOBS)
	QUORVANE_PERFT_LIMIT=$(PERFT_LIMIT) ctest --preset tsan -j$(JOBS)

format:
	$(CLANG_FORMAT) -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf $(BUILD) $(PGO_BUILD) $(EXE_BUILD) build-asan build-tsan build-fuzz build-release build-wasm dist
