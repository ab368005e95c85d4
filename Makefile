# ferrant2: top-level driver over CMake.
#   make            build everything into build/ (bin/, lib/, data/pf/ as installed)
#   make demo       build, then send sample files through a file-backed ring and receive them back
#   make test       build and run the test suite
#   make test-asan  the test suite under AddressSanitizer and UndefinedBehaviorSanitizer
#   make fuzz       build the libFuzzer targets with clang and run each for FUZZ_SECONDS
#   make bench      Release build, then the benchmark table
#   make install    install under PREFIX (default /usr/local)
#   make deb        the Debian package, in build-deb/ (see docs/deploying.md)
#   make mutate     mutation testing: MUTANTS faults sampled with SEED, within BUDGET seconds
#   make coverage   the suite in a --coverage build, then gcovr's line-coverage total

PREFIX       ?= /usr/local
JOBS         ?= $(shell nproc)
FUZZ_SECONDS ?= 60
CMAKE_FLAGS  ?=
MUTANTS      ?= 60
SEED         ?= 1
BUDGET       ?= 1800
MUTATE_FILES ?=
FIRST        ?= 0
RECHECK      ?=

.PHONY: all build configure deps demo test test-asan fuzz bench install deb mutate coverage clean

all: build

deps:
	@sh scripts/deps.sh

configure: deps
	cmake -S . -B build -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_FLAGS) >/dev/null

build: configure
	cmake --build build -j $(JOBS)

# The demo needs only the programs, not the test suite.
demo: configure
	cmake --build build -j $(JOBS) --target ferrant2 forbserver orbserver orbstat
	sh scripts/demo.sh build

test: build
	cd build && ctest --output-on-failure -j $(JOBS) --timeout 300

test-asan: deps
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DFERRANT_SANITIZE=ON $(CMAKE_FLAGS) >/dev/null
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest --output-on-failure -j $(JOBS) --timeout 600

fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DFERRANT_FUZZ=ON -DFERRANT_TESTS=OFF $(CMAKE_FLAGS) >/dev/null
	cmake --build build-fuzz -j $(JOBS)
	sh scripts/fuzz.sh build-fuzz $(FUZZ_SECONDS)

bench: deps
	cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DFERRANT_TESTS=OFF -DFERRANT_BENCH=ON $(CMAKE_FLAGS) >/dev/null
	cmake --build build-release -j $(JOBS)
	sh bench/run.sh build-release

# Its own build tree, so that build/ is never disturbed; see scripts/mutate.py.
mutate: deps
	python3 scripts/mutate.py --mutants $(MUTANTS) --seed $(SEED) --budget $(BUDGET) \
		--jobs $(JOBS) --files '$(MUTATE_FILES)' --first $(FIRST) --build build-mutate \
		$(if $(RECHECK),--recheck $(RECHECK))

coverage: deps
	cmake -S . -B build-coverage -DCMAKE_BUILD_TYPE=Debug \
		-DCMAKE_CXX_FLAGS=--coverage -DCMAKE_C_FLAGS=--coverage $(CMAKE_FLAGS) >/dev/null
	cmake --build build-coverage -j $(JOBS)
	find build-coverage -name '*.gcda' -delete
	cd build-coverage && { ctest -j $(JOBS) --timeout 600 --output-on-failure >ctest.log || { tail -40 ctest.log; exit 1; }; }
	gcovr -r . --filter 'lib/' --filter 'bin/' -j $(JOBS) --gcov-ignore-parse-errors \
		--print-summary -o build-coverage/coverage.txt build-coverage | tail -3

install: build
	cmake --install build

deb: deps
	JOBS=$(JOBS) sh scripts/deb.sh build-deb

clean:
	rm -rf build build-asan build-fuzz build-release build-deb build-mutate build-coverage
