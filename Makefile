# The two set-up commands of the README. Both install what is missing first.
PKGS := cmake ninja-build g++ make libfmt-dev libgtest-dev libgmock-dev \
        libcli11-dev liblzma-dev xz-utils pkgconf python3 dpkg-dev \
        pybind11-dev python3-dev python3-pytest
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)
BUILD := build
ASAN_BUILD := build-asan
FUZZ_BUILD := build-fuzz
BENCH_BUILD := build-bench
PACKAGE_BUILD := build-package
# The fuzz targets build with clang and link libFuzzer.
FUZZ_PKGS := clang-14 libclang-rt-14-dev libfuzzer-14-dev

.PHONY: deps build test test-plain test-asan test-fuzz demo bench package clean

deps:
	@missing=$$(for p in $(PKGS); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "installing:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq $$missing >/dev/null; \
	fi

build: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j2

# pytest's closing line, from ctest's log of the run.
PYTEST_LINE = grep -hE '^=+ .* in [0-9.]+s =+$$' $(1)/Testing/Temporary/LastTest.log || true

test-plain: build
	cd $(BUILD) && ctest -j2 --output-on-failure
	@$(call PYTEST_LINE,$(BUILD))

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDEPOT_SANITIZE=ON -DDEPOT_BUILD_BENCH=OFF >/dev/null
	cmake --build $(ASAN_BUILD) -j2
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest -j2 --output-on-failure
	@$(call PYTEST_LINE,$(ASAN_BUILD))

test-fuzz: deps
	@missing=$$(for p in $(FUZZ_PKGS); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "installing:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq $$missing >/dev/null; \
	fi
	./scripts/fuzz.sh $(FUZZ_BUILD)

test: test-plain test-asan test-fuzz
	@./scripts/test-ratio.sh

demo: build
	@if [ -x $(BUILD)/tools/depottrie/depottrie ]; then ./scripts/demo.sh $(BUILD); \
	else echo "the depottrie tool is not built yet"; exit 1; fi

# One table of the trie's costs on this machine, from a Release build.
bench: deps
	cmake -S . -B $(BENCH_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DDEPOT_BUILD_BENCH=ON >/dev/null
	cmake --build $(BENCH_BUILD) -j2 --target depot_bench
	./$(BENCH_BUILD)/bench/depot_bench

# Debian packages of a Release build for /usr: depottrie, depottrie-dev (and
# python3-depottrie with the Python module), in build-package/packages/.
package: deps
	cmake -S . -B $(PACKAGE_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
	      -DDEPOT_BUILD_TESTS=OFF -DDEPOT_BUILD_BENCH=OFF >/dev/null
	cmake --build $(PACKAGE_BUILD) -j2
	cd $(PACKAGE_BUILD) && cpack -B packages >/dev/null
	@ls -1 $(PACKAGE_BUILD)/packages/*.deb

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(BENCH_BUILD) $(PACKAGE_BUILD)
