# Front door. `make` builds both DLLs and the tools, `make test` bootstraps, builds and runs every
# test under Wine in both bitnesses, `make demo` shows the product working end to end in fresh Wine
# prefixes.
.PHONY: all release dist dist-check test stress fuzz demo bench bootstrap clean

all: release

bootstrap:
	@scripts/bootstrap.sh

# Both bitnesses: build/release (kwindel-x64.dll, the tools) and build/release-x86 (kwindel-x86.dll,
# the tools' 32-bit twins, named *-x86.exe).
release: bootstrap
	@for p in release release-x86; do \
	  cmake --preset $$p >build-$$p-configure.log 2>&1 || { cat build-$$p-configure.log; exit 1; }; \
	  rm -f build-$$p-configure.log; \
	done
	cmake --build --preset release
	cmake --build --preset release-x86

# The release package of both bitnesses: dist/kwindel-<version>.zip (stripped binaries, import
# libraries, header, docs, licences, SHA256SUMS), dist/kwindel-<version>-symbols.zip (debug
# information) and dist/kwindel-<version>-symstore.zip (a symbol server's layout).
# SIGN_CERT=cert.pem SIGN_KEY=key.pem [SIGN_PASSFILE=file] [SIGN_TSA=url] sign the DLLs and tools.
dist: release
	@SIGN_CERT='$(SIGN_CERT)' SIGN_KEY='$(SIGN_KEY)' SIGN_PASSFILE='$(SIGN_PASSFILE)' SIGN_TSA='$(SIGN_TSA)' \
	  scripts/dist.sh build/release build/release-x86 dist

# Builds the package twice from clean clones of the last commit (different folders, times, time
# zones) and compares the bytes, then signs it with a throw-away certificate, verifies the
# signatures, runs the demo with the signed binaries under Wine and builds a 64-bit and a 32-bit
# service against it. Takes two full builds of both bitnesses.
dist-check: bootstrap
	scripts/dist-check.sh build/dist-check

# Every test in both bitnesses: the 32-bit programs are built first (tests-x86) and run by the
# 64-bit build's CTest as the x86 column.
test: bootstrap
	cmake --preset tests-x86
	cmake --build --preset tests-x86
	cmake --preset tests
	cmake --build --preset tests
	ctest --preset tests

# The long reliability runs (eight-thread copies, leak counts, load/unload cycles) under Wine;
# `make test` runs their short versions.
stress: bootstrap
	cmake --preset tests-x86
	cmake --build --preset tests-x86
	cmake --preset tests
	cmake --build --preset tests
	tests/reliability/stress.sh build/tests build/tests-x86

# The native libFuzzer targets (clang, ASan, UBSan), each run for FUZZ_SECONDS from the seed
# corpus in tests/fuzz/corpus; prints executions, exec/s and findings (kept in build/fuzz/findings).
FUZZ_SECONDS ?= 180
fuzz: bootstrap
	@scripts/fetch-deps.sh "$${XDG_CACHE_HOME:-$$HOME/.cache}/kwindel"
	tests/fuzz/run.sh build/fuzz $(FUZZ_SECONDS)

# Builds both release presets with the benchmark programs and runs every bench/*.sh, which
# measure the 32-bit DLL beside the 64-bit one where the bitness matters.
bench: release
	cmake --build --preset release --target benchmarks
	cmake --build --preset release-x86 --target benchmarks
	bench/run.sh build/release build/release-x86

demo: release
	scripts/demo.sh build/release build/release-x86

clean:
	rm -rf build dist
