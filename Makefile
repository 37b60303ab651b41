# The two commands of the README are `make demo` and `make test`; both install
# what is missing, configure and build on demand.
BUILD      ?= build
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=
DEB_PACKAGES := cmake g++ make pkg-config ccache clang-format clang-tidy python3 libcli11-dev \
                libgdal-dev gdal-bin libproj-dev proj-bin proj-data \
                libboost-dev libeigen3-dev libgtest-dev libgmock-dev libbenchmark-dev \
                pybind11-dev python3-dev python3-numpy python3-pytest python3-dask python3-distributed
BENCH_PACKAGES := libopencv-dev libceres-dev
INTEGRATION_PACKAGES := colmap
FUZZ_PACKAGES := clang libclang-rt-14-dev
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

define install_missing
	@missing=""; for p in $(1); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get update -qq && \
	  $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $$missing; \
	fi
endef

.PHONY: all deps build demo test test-integration bench asan tsan fuzz install symbols format format-check clean
all: build

deps:
	$(call install_missing,$(DEB_PACKAGES))

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DEPHO_WERROR=ON $(CMAKE_ARGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	./$(BUILD)/epho demo

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 1200

# Exchanges with other programs, kept out of `make test` because they need
# their packages: blocks through COLMAP's own model converter.
test-integration: build
	-$(call install_missing,$(INTEGRATION_PACKAGES))
	cmake/colmap_integration.sh $(BUILD)/epho $(CURDIR)

bench: deps
	$(call install_missing,$(BENCH_PACKAGES))
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DEPHO_BENCH=ON -DEPHO_TESTS=OFF
	cmake --build build-bench -j $(JOBS)
	cmake --build build-bench --target run_benchmarks

asan: deps
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DEPHO_SANITIZE=address,undefined
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j $(JOBS) --timeout 2400

tsan: deps
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DEPHO_SANITIZE=thread
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS="suppressions=$(CURDIR)/cmake/tsan.supp second_deadlock_stack=1" \
	  ctest --output-on-failure -j $(JOBS) --timeout 2400

fuzz: deps
	$(call install_missing,$(FUZZ_PACKAGES))
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DEPHO_FUZZ=ON -DEPHO_SANITIZE=address,undefined
	cmake --build build-fuzz -j $(JOBS) --target fuzzers
	@echo "Fuzzers are in build-fuzz/fuzz_*; e.g. build-fuzz/fuzz_camerafile_fuzz testdata/fuzz/camerafile_fuzz"

install: build
	cmake --install $(BUILD)

# Refresh the exported-symbol reference lists after a deliberate interface change.
symbols: build
	for l in kzdvrasteru kzdvmodlibu kzdvpholibu; do \
	  cmake/check_symbols.sh $(BUILD)/lib$$l.so cmake/exported_symbols/$$l.txt --write; done

FORMAT_FILES = $$(git ls-files '*.cpp' '*.h' '*.hpp' '*.c')
format:
	clang-format -i $(FORMAT_FILES)

# Fails on any file that differs from the checked-in .clang-format style.
format-check:
	$(call install_missing,clang-format)
	clang-format --dry-run --Werror $(FORMAT_FILES)

clean:
	rm -rf $(BUILD) build-bench build-asan build-tsan build-fuzz
