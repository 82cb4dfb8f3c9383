# What people type. CMake and CTest do the work; see CMakePresets.json.

# KAVPLAT_PORT, MACHINE, DESCRIPTION and DESTDIR reach the commands through the environment.
export KAVPLAT_PORT MACHINE DESCRIPTION DESTDIR
PREFIX ?= /usr/local
SOURCES = git ls-files '*.c' '*.cpp' '*.h'
JOBS := $(shell nproc)
# Most tests of an agent wait for it, and not for a processor.
TEST_JOBS := $(shell echo $$((2 * $$(nproc))))

.PHONY: help run test test-portability build install uninstall dist deb test-package test-reproducible test-container coverage fuzz soak build-bench bench mutants tidy format format-check clean setup-run setup-test setup-bench setup-check setup-ci setup-deb setup-container

help:
	@echo "make run            serve servers/rack-2u.json by a private snmpd on 127.0.0.1:1161"
	@echo "                    MACHINE=1  this machine itself, and what changes"
	@echo "                    DESCRIPTION=file  another server    KAVPLAT_PORT=n  another port"
	@echo "make test           build everything and run all tests"
	@echo "make test-portability   the tests and the agent on foreign architectures, by qemu"
	@echo "make build          build the libraries only, into build/release"
	@echo "make install        install them   PREFIX=$(PREFIX)   DESTDIR=$(DESTDIR)"
	@echo "make uninstall      remove what was installed"
	@echo "make dist           the sources of the last commit as build/dist/kavplat-VERSION.tar.gz"
	@echo "make deb            Debian packages of the last commit, into build/deb"
	@echo "make test-package   install, upgrade and purge them in a Debian of their own; as root"
	@echo "make test-reproducible  build the packages twice and compare them"
	@echo "make test-container  build the image of the Containerfile and run it; as root"
	@echo "make check-PRESET   build and run what is tested by another preset: asan, tsan, clang"
	@echo "make coverage       line and branch coverage of src/ and described/, into build/coverage/report"
	@echo "make fuzz           the fuzzers, a minute each          SECONDS=n  longer   FUZZERS=room  of these alone"
	@echo "make soak           agents under load while everything changes   MINUTES=n  of each build"
	@echo "make bench          how quick the agent is, beside others, as ratios   ROUNDS=n  of measuring"
	@echo "make mutants        does a test of the rooms notice each changed line?   SAMPLE=n SEED=n ROOMS=a,b"
	@echo "make tidy           clang-tidy over DIRECTORIES: src described tools"
	@echo "make format-check   is everything formatted?   make format  formats it"
	@echo "make clean          remove build/"
	@echo "run, test, test-portability, coverage, bench, mutants, tidy and format-check install what Debian packages they miss."

setup-run setup-test setup-bench setup-check setup-ci setup-deb setup-container: setup-%:
	@tools/setup $*

build:
	cmake --preset release -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build --preset release

run: setup-run
	@$(MAKE) --no-print-directory build
	@exec tools/run-agent build/release

test: setup-test
	@$(MAKE) --no-print-directory check-dev

test-portability: setup-ci
	tests/portability/run

check-%:
	cmake --preset $*
	cmake --build --preset $*
	ctest --preset $* --parallel $(TEST_JOBS)

install: build
	cmake --install build/release

uninstall:
	cmake -D BUILD_DIR=build/release -P cmake/Uninstall.cmake

dist:
	tools/dist build/dist

deb: setup-deb
	tools/make-deb build/deb

test-package: deb
	tests/package/run build/deb build/package-test

test-reproducible: deb
	tests/package/reproducible build/deb

test-container: setup-container deb
	tests/container/run build/container-test

coverage: setup-check
	find build/coverage -name '*.gcda' -delete 2>/dev/null || true
	$(MAKE) --no-print-directory check-coverage
	mkdir -p build/coverage/report
	gcovr --root . --filter src/ --filter described/ --exclude-throw-branches --print-summary \
		--html-details build/coverage/report/index.html build/coverage

# SECONDS is for each of the fuzzers.
fuzz: SECONDS := 60
fuzz: FUZZERS := cache description smbios tree
fuzz: setup-check
	cmake --preset fuzz
	cmake --build --preset fuzz
	tests/fuzz/run build/fuzz $(SECONDS) $(FUZZERS)

# MINUTES is for each of the builds. The plain one has the say about memory, the
# sanitizers about everything else.
soak: MINUTES := 30
soak: setup-check
	for preset in dev asan tsan; do \
		cmake --preset $$preset && cmake --build --preset $$preset --target soak_test && \
		KAVPLAT_SOAK_SECONDS=$$(($(MINUTES) * 20)) build/$$preset/tests/soak/soak_test || exit 1; \
	done

build-bench: setup-bench
	cmake --preset bench
	cmake --build --preset bench

# What else the machine does befalls all that is compared; still, leave it alone.
bench: ROUNDS := 7
bench: build-bench
	build/bench/bench/kavplat-bench --rounds $(ROUNDS)

# SAMPLE=0 is all of them, for some hours.
mutants: SAMPLE := 300
mutants: SEED := 1
mutants: ROOMS := hashtable,kavdata,table,monitor,kavPlatMIB
mutants: setup-check
	tests/mutants/run --sample $(SAMPLE) --seed $(SEED) --rooms $(ROOMS)

tidy: DIRECTORIES := src described tools
tidy: setup-check
	cmake --preset dev
	cmake --build --preset dev
	git ls-files $(DIRECTORIES:%='%/*.cpp') | xargs -P $(JOBS) -n 1 clang-tidy --quiet -p build/dev

format:
	$(SOURCES) | xargs clang-format -i

format-check: setup-check
	$(SOURCES) | xargs clang-format --dry-run -Werror

clean:
	rm -rf build
