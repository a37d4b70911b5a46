# A thin front on CMake. `make run` is the main job, `make test` is what CI runs.

SHELL       = /bin/bash
.SHELLFLAGS = -o pipefail -c

BUILD      ?= build
SANITIZED  ?= $(BUILD)-asan
THREADED   ?= $(BUILD)-tsan
ARM        ?= $(BUILD)-arm
FUZZED     ?= $(BUILD)-fuzz
LINTED     ?= $(BUILD)-lint
MUTATED    ?= $(BUILD)-mutants
BUILD_TYPE ?= RelWithDebInfo
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

# What is built: what a home needs, unless something else is named. That wants few packages; for anything else the tests,
# benchmarks and the replay of the fuzzers' inputs are configured as well, and theirs are installed.
TARGETS    ?= desk
TESTS      ?= $(if $(filter-out desk arvokclt qzcap-probe qzcapd ubusd ubus_command lab-gateway lab-cloud,$(TARGETS)),ON)

# Where the loop and bus libraries of a device are, and what is built against them. QUICK: only what depends on them most.
PREFIX     ?=
QUICK      ?=
SYSTEM     ?= $(BUILD)-system-$(notdir $(abspath $(PREFIX)))

CTEST  = ctest --output-on-failure --no-tests=error -j 6
CODE   = git ls-files '*.cpp' '*.c' '*.h'
TIDIED = $(shell git ls-files 'src/*.cpp' 'lab/*.cpp')
# The tests of what runs on threads, or hands over to one.
THREAD_TESTS = task_queue_test cloud_test

# The tests that see most of the bus, and what they need.
BUS_TESTS   = ^(bus_test$$|agent\.|faults\.)
BUS_TARGETS = desk bus_test bus_object trace_calls fail_calls lab_timers

.PHONY: all run picture test check-plain check-sanitized sanitized check-thread arm check-system system bundled \
	check-own-bus check-bundled-on-theirs check-theirs-on-bundled arm-boot check-format format lint bench soak fleet fuzz mutants clean

# configure FOLDER OPTION...: shows what CMake has to say only when it fails.
configure = cmake -S . -B $(1) $(2) >$(1).log 2>&1 || { cat $(1).log; exit 1; }; rm -f $(1).log
build     = $(MAKE) --no-print-directory all
# tour FOLDER: the tour with the programs of a build.
tour      = ARVOK_BIN=$(abspath $(1))/bin lab/home -- lab/tour </dev/null

all:
	@tools/setup.sh desk $(if $(TESTS),tests) $(PACKAGES)
	@$(call configure,$(BUILD),-DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(if $(TESTS),-DARVOK_TESTS=ON) $(CMAKE_ARGS))
	@env -u MAKEFLAGS -u MFLAGS cmake --build $(BUILD) -j $(JOBS) --target $(TARGETS) -- --no-print-directory -s | { grep --line-buffered -v 'Built target' || true; }

# The agent on its desk device in an emulated home, step by step.
run:
	+@$(build) TARGETS=desk
	@ARVOK_BIN=$(abspath $(BUILD))/bin lab/home -- lab/tour

# The picture of a session that README shows, made anew from a tour now, and the whole tour as a page.
picture:
	+@$(build) TARGETS=desk
	ARVOK_BIN=$(abspath $(BUILD))/bin lab/home --capture $(BUILD)/tour.pcap -- lab/tour </dev/null | tail -n 1
	lab/ladder --seconds 10 --title 'The first ten seconds of the tour' -o docs/session.svg $(BUILD)/tour.pcap
	lab/ladder --title 'The tour' -o $(BUILD)/tour.html $(BUILD)/tour.pcap

# Formatting, static analysis, every test and the tour, then tests and tour again under the sanitizers, and the tests of
# threads under theirs. Most tests wait for timers of the agent, so what computes runs beside them.
test: check-format
	+@$(build) TARGETS=all
	@$(MAKE) --no-print-directory -j 2 -O check-plain sanitized check-thread
	@$(MAKE) --no-print-directory -j 2 -O check-sanitized lint

check-plain:
	$(CTEST) --test-dir $(BUILD)
	$(call tour,$(BUILD))

check-sanitized:
	$(CTEST) --test-dir $(SANITIZED)
	$(call tour,$(SANITIZED))

sanitized:
	+@$(build) BUILD=$(SANITIZED) BUILD_TYPE=Debug CMAKE_ARGS=-DARVOK_SANITIZE=ON TARGETS=all

# Reports go to standard output, because the tests keep the standard error output to themselves. Older runtimes refuse
# some of the random memory layouts, so where it can be had, there is a fixed one.
check-thread:
	+@$(build) BUILD=$(THREADED) BUILD_TYPE=Debug CMAKE_ARGS=-DARVOK_SANITIZE=thread \
		TARGETS='$(THREAD_TESTS)'
	TSAN_OPTIONS=log_path=stdout $$(setarch -R true 2>/dev/null && echo setarch -R) $(CTEST) --test-dir $(THREADED) -R '^($(subst $() ,|,$(THREAD_TESTS)))$$'

# The same agent, desk and tests for a 32-bit ARM device, run by user emulation (docs/porting.md).
arm:
	@tools/setup.sh g++-arm-linux-gnueabihf qemu-user
	@tools/sysroot.sh armhf $(abspath $(ARM))/sysroot
	+@$(build) BUILD=$(ARM) CMAKE_ARGS=-DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/armhf.cmake TARGETS=all
	$(CTEST) -j 3 --test-dir $(ARM)
	$(call tour,$(ARM)/emulated)

# Everything against the loop and bus libraries of a device, which are installed under PREFIX with their daemon and command: all
# tests and the tour on that bus. Then either side of the bus with the bundled other one. QUICK=yes leaves out the crossing, and of
# the tests all but those of bus, agent and faults.
check-system:
	@test -x '$(PREFIX)/sbin/ubusd' -a -x '$(PREFIX)/bin/ubus' -a -e '$(PREFIX)/lib/libubus.so' || \
		{ echo 'make check-system PREFIX=DIR: libubox, libubus, ubusd and ubus as they are installed under DIR'; exit 1; }
	+@$(MAKE) --no-print-directory system
	+@$(MAKE) --no-print-directory -k check-own-bus $(if $(QUICK),,check-bundled-on-theirs check-theirs-on-bundled)

# What an earlier PREFIX of the same name has left is looked for anew.
system:
	+@$(build) BUILD=$(SYSTEM) TARGETS='$(if $(QUICK),$(BUS_TARGETS),all)' TESTS=ON \
		CMAKE_ARGS='-ULIBUBOX_* -ULIBUBUS_* -ULIBBLOBMSG_* -DARVOK_LIBUBOX=system -DCMAKE_PREFIX_PATH=$(abspath $(PREFIX))'

bundled:
	+@$(build) TARGETS='$(BUS_TARGETS)' TESTS=ON CMAKE_ARGS=-DARVOK_LIBUBOX=bundled

check-own-bus:
	ARVOK_BUS=$(abspath $(PREFIX)) $(CTEST) --test-dir $(SYSTEM) $(if $(QUICK),-R '$(BUS_TESTS)')
	$(if $(QUICK),,ARVOK_BUS=$(abspath $(PREFIX)) $(call tour,$(SYSTEM)))

check-bundled-on-theirs: bundled
	ARVOK_BUS=$(abspath $(PREFIX)) $(CTEST) --test-dir $(BUILD) -R '$(BUS_TESTS)'
	ARVOK_BUS=$(abspath $(PREFIX)) $(call tour,$(BUILD))

check-theirs-on-bundled: bundled
	ARVOK_BUS=$(abspath $(BUILD)) $(CTEST) --test-dir $(SYSTEM) -R '$(BUS_TESTS)'
	ARVOK_BUS=$(abspath $(BUILD)) $(call tour,$(SYSTEM))

# The agent and its home on a real 32-bit ARM kernel, in a virtual machine.
arm-boot:
	@tools/setup.sh g++-arm-linux-gnueabihf qemu-user qemu-system-arm cpio
	@tools/sysroot.sh armhf $(abspath $(ARM))/sysroot
	@tools/sysroot.sh armhf $(abspath $(ARM))/kernel linux-image-armmp busybox-static
	+@$(build) BUILD=$(ARM) CMAKE_ARGS=-DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/armhf.cmake TARGETS='desk arvok-bare'
	@lab/arm-boot $(abspath $(ARM))

check-format:
	@tools/setup.sh format
	@test -n "$$($(CODE))" || { echo 'formatting is checked in a git checkout only'; exit 1; }
	@$(CODE) | xargs clang-format --dry-run --Werror

format:
	@tools/setup.sh format
	@$(CODE) | xargs clang-format -i

# Looks at the sources as a build would, without precompiled headers, which are of the build's own compiler.
lint:
	@tools/setup.sh desk lint
	+@$(build) TARGETS=arvokclt
	@tools/check_layers $(BUILD)/lib/libagent.a
	@$(call configure,$(LINTED),-DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON)
	@echo $(TIDIED) | xargs -n 4 -P $(JOBS) clang-tidy -p $(LINTED) --quiet 2>&1 | { grep -v ' generated\.$$' || true; }

# The instructions are counted with callgrind.
bench:
	+@$(build) TARGETS='desk benchmarks' PACKAGES=valgrind
	@ARVOK_BIN=$(abspath $(BUILD))/bin $(BUILD)/bin/arvok-bench
	@ARVOK_BIN=$(abspath $(BUILD))/bin bench/report

# Every fuzzer for SECONDS, or the one of TARGET.
fuzz:
	+@$(build) BUILD=$(FUZZED) PACKAGES='clang libclang-rt-14-dev' TARGETS=fuzzers TESTS= \
		CMAKE_ARGS='-DARVOK_SANITIZE=fuzzer -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++'
	@fuzz/run $(abspath $(FUZZED)) $(or $(SECONDS),60) $(TARGET)

# Years of work in twenty to thirty minutes, and what of the agent has grown: REQUESTS, NOTIFICATIONS and RECONNECTIONS say
# how many.
REQUESTS      ?= 1000000
NOTIFICATIONS ?= 100000
RECONNECTIONS ?= 10000
soak:
	+@$(build) TARGETS='desk arvok-soak'
	@ARVOK_BIN=$(abspath $(BUILD))/bin ARVOK_LIB=$(abspath $(BUILD))/lib lab/home --peers none --no-agent -- \
		arvok-soak $(REQUESTS) $(NOTIFICATIONS) $(RECONNECTIONS)

# N homes through a long outage, a short one, and the loss of a server, on clocks that run SPEED times as fast. Table and
# pictures are in the build's fleet/ then.
SPEED ?= 15
fleet: N = 1000
fleet:
	+@$(build) TARGETS=desk
	@ARVOK_BIN=$(abspath $(BUILD))/bin lab/fleet $(N) --speed $(SPEED) --script standard --out $(abspath $(BUILD))/fleet

# N small faults in src/, one at a time: how many the tests catch. ARGS: further options of tools/mutants/run.
N    ?= 100
SEED ?= 1
mutants:
	@tools/setup.sh desk tests
	@tools/mutants/run --folder $(abspath $(MUTATED)) --count $(N) --seed $(SEED) $(ARGS)

clean:
	rm -rf $(BUILD) $(BUILD)-system-* $(SANITIZED) $(THREADED) $(ARM) $(FUZZED) $(LINTED) $(MUTATED)
