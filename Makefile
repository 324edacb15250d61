# Convenience targets around CMake. `make demo` and `make test` are the two
# commands a newcomer needs; both install missing Debian packages first.

JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
SANITIZE_FLAGS = -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer
TSAN_FLAGS = -fsanitize=thread -fno-omit-frame-pointer

# Fuzzing: clang with libFuzzer, address and undefined-behaviour sanitizers.
FUZZ_CC ?= clang-14
FUZZ_CXX ?= clang++-14
FUZZ_SECONDS ?= 300
# make test fuzzes each harness this long, within FUZZ_TEST_BUDGET seconds in all.
FUZZ_TEST_SECONDS ?= 30
FUZZ_TEST_BUDGET ?= 180

.PHONY: all deps configure build demo test test-normal test-asan test-tsan test-fuzz fuzz build-fuzz soak bench bench-loop install package clean

all: build

deps:
	@scripts/install-deps.sh

# The benchmarks are compiled here too (not run), so they keep up with the library.
configure: deps
	@cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOCP_API_WERROR=ON \
	  -DOCP_API_BUILD_BENCHMARKS=ON $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build build -j $(JOBS)

# Only the library and the demo program: no test suite to compile first.
demo: configure
	@cmake --build build -j $(JOBS) --target sim_demo
	./build/examples/sim_demo

# The whole suite three ways: a normal build, AddressSanitizer with
# UndefinedBehaviorSanitizer, and ThreadSanitizer on the threaded tests; then
# a short fuzzing run of every harness.
test: test-normal test-asan test-tsan test-fuzz

test-normal: build
	cd build && ctest --output-on-failure -j $(JOBS)

test-asan: deps
	@cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DOCP_API_WERROR=ON \
	  -DOCP_API_BUILD_EXAMPLES=OFF -DOCP_API_PACKAGE_TEST=OFF -DOCP_API_VM_TESTS=OFF \
	  -DCMAKE_CXX_FLAGS="$(SANITIZE_FLAGS)" -DCMAKE_EXE_LINKER_FLAGS="$(SANITIZE_FLAGS)" >/dev/null
	@cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)

test-tsan: deps
	@cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DOCP_API_WERROR=ON \
	  -DOCP_API_THREADED_TESTS_ONLY=ON -DOCP_API_PACKAGE_TEST=OFF \
	  -DCMAKE_CXX_FLAGS="$(TSAN_FLAGS)" -DCMAKE_EXE_LINKER_FLAGS="$(TSAN_FLAGS)" >/dev/null
	@cmake --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest --output-on-failure -j $(JOBS) -L threaded

build-fuzz: deps
	@CC=$(FUZZ_CC) CXX=$(FUZZ_CXX) cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DOCP_API_WERROR=ON -DOCP_API_BUILD_FUZZERS=ON -DOCP_API_BUILD_TESTS=OFF -DOCP_API_BUILD_TOOLS=OFF \
	  -DOCP_API_BUILD_EXAMPLES=OFF -DOCP_API_PACKAGE_TEST=OFF >/dev/null
	@cmake --build build-fuzz -j $(JOBS)

# Each harness for FUZZ_SECONDS (default 5 minutes).
fuzz: build-fuzz
	scripts/run-fuzzers.sh build-fuzz $(FUZZ_SECONDS)

test-fuzz: build-fuzz
	scripts/run-fuzzers.sh build-fuzz $(FUZZ_TEST_SECONDS) $(FUZZ_TEST_BUDGET)

# Not part of make test: SOAK_SECONDS (default 600) of 16 emulated actuators
# streaming at 1 kHz on a lossy bus while host threads send and ask.
SOAK_SECONDS ?= 600
soak: build
	./build/tests/soak/ocp_api_soak $(SOAK_SECONDS)

bench: deps
	@cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DOCP_API_BUILD_BENCHMARKS=ON \
	  -DOCP_API_BUILD_TESTS=OFF -DOCP_API_BUILD_EXAMPLES=OFF >/dev/null
	@cmake --build build-bench -j $(JOBS)
	./build-bench/bench/ocp_api_bench
	bench/can/can_cost.sh build-bench
	PYTHONPATH=build-bench/python /usr/bin/python3 python/bench/bench_bindings.py
	PYTHONPATH=build-bench/python /usr/bin/python3 python/bench/bench_bridge.py
	PYTHONPATH=build-bench/python /usr/bin/python3 python/bench/bench_aio.py

# A whole-robot control loop at 1 kHz: 24 actuators on 6 CAN-FD channels and
# 12 on the simulated bus, LOOP_SECONDS (default 10) each.
LOOP_SECONDS ?= 10
bench-loop: deps
	@cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DOCP_API_BUILD_BENCHMARKS=ON \
	  -DOCP_API_BUILD_TESTS=OFF -DOCP_API_BUILD_EXAMPLES=OFF >/dev/null
	@cmake --build build-bench -j $(JOBS) --target ocp_api_loop_bench
	./build-bench/bench/ocp_api_loop_bench --seconds $(LOOP_SECONDS)

# The SocketCAN transport against a C echo and candump, in the test VM.
bench-vm: deps
	@cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DOCP_API_BUILD_BENCHMARKS=ON \
	  -DOCP_API_BUILD_TESTS=OFF -DOCP_API_BUILD_EXAMPLES=OFF >/dev/null
	@cmake --build build-bench -j $(JOBS) --target ocp_api_socketcan_bench can_echo
	OCP_VM_VERBOSE=1 tests/vm/run-in-vm.sh --bin build-bench/bench/can_echo \
	  build-bench/bench/ocp_api_socketcan_bench vcan0 /test/can_echo

install: build
	cmake --install build

# The Debian package: an optimised build for /usr in build-package/ (its debug
# information stripped), CPack's
# .deb, and lintian's verdict on it (errors fail).
package: deps
	@cmake -S . -B build-package -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
	  -DOCP_API_WERROR=ON -DOCP_API_BUILD_TESTS=OFF -DOCP_API_BUILD_EXAMPLES=OFF >/dev/null
	@cmake --build build-package -j $(JOBS)
	cd build-package && cpack
	lintian --fail-on error --tag-display-limit 0 build-package/ocp-api_*.deb

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz build-package
