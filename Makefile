# Front door: wraps CMake. See README.md.
SHELL := /bin/bash
BUILD ?= build
PY := /usr/bin/python3

.PHONY: all deps build demo-build test demo bench format clean

# What the demo runs: the module, the runtime (a dependency of each), the
# command-line tool and the Python package. Tests and benchmarks are left
# for `make test` and `make bench`.
DEMO_TARGETS := zotdigest zotdigest_cli zotdigest_python

all: build

deps:
	@tools/deps.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: $(BUILD)/build.ninja
	cmake --build $(BUILD)

# Everything: deps, the three build trees, every C++ and Python suite.
test: deps
	@tools/run_tests.sh

demo-build: $(BUILD)/build.ninja
	cmake --build $(BUILD) --target $(DEMO_TARGETS)

demo: deps
	@$(MAKE) --no-print-directory demo-build
	@tools/demo.sh $(BUILD)

bench: build
	@tools/bench.sh $(BUILD)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build build-asan build-tsan
