# Front door: wraps CMake. See README.md.
SHELL := /bin/bash
BUILD ?= build
PY := /usr/bin/python3

.PHONY: all deps build test demo docs bench asan tsan format clean

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

demo: deps build
	@tools/demo.sh $(BUILD)

# The README's pictures (docs/images), from data the script generates.
docs: deps build
	PYTHONPATH=$(BUILD)/python QUORIX_MODULE_PATH=$(BUILD)/lib $(PY) tools/make_docs.py docs/images

bench: build
	@tools/bench.sh $(BUILD)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build build-asan build-tsan
