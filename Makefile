# Thin wrapper over CMake. `make demo` and `make test` are all the set-up a fresh machine needs.
JOBS ?= $(shell nproc)
CMAKE_GEN := -G Ninja

.PHONY: all deps demo test bench format clean

all: deps
	cmake -S . -B build/release $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Release -DVORN2_BUILD_TESTS=OFF
	cmake --build build/release -j $(JOBS)

deps:
	@bash scripts/install-deps.sh

demo: all
	./build/release/tools/vorn/vorn demo

# The tests run with AddressSanitizer and UndefinedBehaviorSanitizer.
test: deps
	cmake -S . -B build/asan $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVORN2_SANITIZE=ON
	cmake --build build/asan -j $(JOBS)
	cd build/asan && ctest --output-on-failure -j $(JOBS)

bench: deps
	cmake -S . -B build/bench $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Release -DVORN2_BUILD_TESTS=OFF \
	  -DVORN2_BUILD_BENCH=ON -DVORN2_BENCH_PEERS=ON
	cmake --build build/bench -j $(JOBS)
	./build/bench/bench/vorn2_bench --benchmark_min_time=0.2
	./build/bench/bench/vorn2_nist_strd
	./build/bench/bench/vorn2_nist_strd --fd-relative --fd-step=1e-4

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
