# Thin wrapper around CMake and CTest. Extra configure flags go in CMAKE_ARGS, for example
#   make test CMAKE_ARGS="-DQUORVANE_WERROR=ON -DQUORVANE_DATA_DIR=/path/to/data"
BUILD ?= build
JOBS ?= 2
CMAKE_ARGS ?=
PERFT_LIMIT ?= 2000000
CLANG_FORMAT ?= clang-format

.PHONY: all build run test bench sanitize asan tsan format clean

all: build

build:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_ARGS)
	cmake --build $(BUILD) -j$(JOBS)

run: build
	./$(BUILD)/quorvane

test: build
	ctest --test-dir $(BUILD) -j$(JOBS) --output-on-failure

bench: build
	./$(BUILD)/quorvane_bench

# ASan + UBSan over the whole suite (perft limited to small cases), then ThreadSanitizer
# over the threaded suites. Any sanitizer report aborts the test that raised it.
sanitize: asan tsan

asan:
	cmake --preset asan $(CMAKE_ARGS)
	cmake --build --preset asan -j$(JOBS)
	QUORVANE_PERFT_LIMIT=$(PERFT_LIMIT) ctest --preset asan -j$(JOBS)

tsan:
	cmake --preset tsan $(CMAKE_ARGS)
	cmake --build --preset tsan -j$(JOBS)
	QUORVANE_PERFT_LIMIT=$(PERFT_LIMIT) ctest --preset tsan -j$(JOBS)

format:
	$(CLANG_FORMAT) -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf $(BUILD) build-asan build-tsan
