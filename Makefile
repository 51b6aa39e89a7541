# The two commands of the README: `make demo` and `make test`.
# Both install what is missing, configure, build and run.

.PHONY: all deps build test test-asan test-tsan demo release package install bench fuzz format clean

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset default >/dev/null
	cmake --build --preset default

test: build
	ctest --preset default

test-asan: deps
	cmake --preset asan >/dev/null
	cmake --build --preset asan
	ctest --preset asan

# ThreadSanitizer runs the tests that call from many threads at once (see
# docs/reliability.md); only what they need is built.
test-tsan: deps
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan --target concurrency_test support_files_test support_types_test \
		support_call_records_test implvm_inventory_test
	ctest --preset tsan

# Only what the demo runs: the libraries and implvm (the "demo" build
# preset); `make test` builds the rest in the same build folder.
demo: deps
	cmake --preset default >/dev/null
	cmake --build --preset demo
	scripts/demo

# Release build without tests or test hooks, to install or package
# (docs/install.md).
release: deps
	cmake --preset release >/dev/null
	cmake --build --preset release

# build-release/implvm_<version>_<arch>.deb
package: release
	cpack --preset release

PREFIX ?= /usr/local
install: release
	cmake --install build-release --prefix $(PREFIX)

# Release build of bench/ and every figure beside its baseline (not part of
# the test suite; see docs/performance.md).
bench: deps
	scripts/bench

# libFuzzer targets (clang, ASan + UBSan), each for FUZZ_SECONDS (see
# docs/reliability.md).
FUZZ_SECONDS ?= 60
fuzz: deps
	scripts/fuzz $(FUZZ_SECONDS)

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz build-release
