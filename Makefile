# A thin front to the CMake presets (CMakePresets.json) and the scripts.
#
#   make run                 the probe on two channels encoded here, shown live, until Ctrl-C
#   make run RUN_SECONDS=30  the same for so long
#   make run GROUPS="239.1.1.1 239.1.1.2"   real groups on this machine's eth0 (root)
#   make run PLAYLIST=channels.m3u           the groups of a playlist there
#   make test                unit and end-to-end tests
#   make help                everything else

JOBS ?= $(shell nproc)
PRESET ?= release
SOAK_SECONDS ?= 600
ALARM_SOAK_HOURS ?= 24
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= frames control parameterSet captureFile recordLine playlist configuration httpRequest \
  meterDatagrams meterRecording meterSections meterVideo meterAudio meterCues meterOrders meterReports pictureLinks
RUN_PROGRAMS = kestor kestor-meter kestor-picture kestor-station kestorctl
SOURCES = git ls-files '*.cpp' '*.h' '*.js'
# What is about to be compiled for the first time, and how long that takes (tenths of a second a file and processor): PRESET, TARGETS, TENTHS
announce = files=$$(cd build/$(1) && ninja -t inputs $(2) | grep '\.o$$' | while read -r file; do [ -e $$file ] || echo; done | \
  wc -l); [ $$files -eq 0 ] || \
  echo "compiling $(2): $$files files, about $$(((files * $(3) / 10 / $(JOBS) + 9) / 10 * 10)) s with $(JOBS) at a time"

.PHONY: help build run test verify soak bench format check-format tidy clean

help:
	@sed -n 's/^## //p' $(MAKEFILE_LIST)

## build         the programs, tests and benchmarks, in build/release/bin
build:
	scripts/install-deps.sh compile run test
	cmake --preset release -DBUILD_TESTING=ON
	@$(call announce,release,all,37)
	cmake --build --preset release -j $(JOBS)

## run           probe, meter, station and page; RUN_SECONDS limits the time, GROUPS or PLAYLIST name real groups
run:
	scripts/install-deps.sh compile
	@tests=$$([ -e build/release/build.ninja ] || echo -DBUILD_TESTING=OFF) && \
	  cmake --preset release $$tests --log-level=WARNING >/dev/null
	@$(call announce,release,$(RUN_PROGRAMS),25)
	scripts/install-deps.sh run & cmake --build --preset release -j $(JOBS) --target $(RUN_PROGRAMS); \
	  status=$$?; wait $$! && exit $$status
	RUN_SECONDS="$(RUN_SECONDS)" PLAYLIST="$(PLAYLIST)" scripts/demo.sh $(GROUPS)

## test          unit and end-to-end tests, the page in Chromium, monitoring with its servers; PRESET=asan, tsan, debug
test:
	scripts/install-deps.sh compile run test page
	scripts/install-servers.sh
	cmake --preset $(PRESET) -DBUILD_TESTING=ON
	@$(call announce,$(PRESET),all,37)
	cmake --build --preset $(PRESET) -j $(JOBS)
	ctest --test-dir build/$(PRESET) --output-on-failure $(CTEST_OPTIONS) -j $$((2 * $(JOBS))) # most of them mostly wait

## check-accessibility   every view of the page by axe-core (npm) in Chromium
.PHONY: check-accessibility
check-accessibility: build
	scripts/install-deps.sh page
	scripts/check-accessibility

## page-images   the pictures in docs/images, anew from the demonstration
.PHONY: page-images
page-images: build
	scripts/install-deps.sh page
	scripts/page-images

## verify        the live results against ffprobe and the sender
verify: build
	scripts/verify-demo

## soak          damaged streams, channels, readers and controllers come and go for SOAK_SECONDS (600); SOAK_SEED
soak: build
	scripts/soak $(SOAK_SECONDS) $(SOAK_SEED)

## alarm-soak    encoded streams without a fault, ALARM_SOAK_HOURS (24) of stream time each, raise no alarm
.PHONY: alarm-soak
alarm-soak: build
	JOBS=$(JOBS) bench/alarm-soak.sh $(ALARM_SOAK_HOURS)

## fuzz          libFuzzer for FUZZ_SECONDS (60) on each of FUZZ_TARGETS; what fails is in build/fuzz/found
.PHONY: fuzz
fuzz:
	scripts/install-deps.sh compile run test fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	mkdir -p build/fuzz/found $(FUZZ_TARGETS:%=build/fuzz/corpus/%)
	printf '%s\n' $(FUZZ_TARGETS) | xargs -P $(JOBS) -I{} \
	  env build/fuzz/bin/fuzz_{} -max_total_time=$(FUZZ_SECONDS) -max_len=8192 -timeout=25 -close_fd_mask=1 -entropic=0 \
	    -artifact_prefix=build/fuzz/found/{}- build/fuzz/corpus/{} tests/fuzz/corpus/{}

## bench         what the speed claims rest on; BENCH=quick only sees that all of it runs, BENCH=live is the live part alone
bench: build
	scripts/install-deps.sh bench
	bench/run.sh $(BENCH)

## format check-format   clang-format on all sources, or a look whether it would change any
format:
	scripts/install-deps.sh lint
	$(SOURCES) | xargs clang-format -i
check-format:
	scripts/install-deps.sh lint
	$(SOURCES) | xargs clang-format --dry-run -Werror

## tidy          clang-tidy on what is shipped, and on the benchmarks
tidy:
	scripts/install-deps.sh compile test lint
	cmake -G Ninja -B build/tidy -DCMAKE_EXPORT_COMPILE_COMMANDS=ON -DKESTOR_PRECOMPILE=OFF -DKESTOR_UNITY=OFF
	cmake --build build/tidy -j $(JOBS) --target control_messages meter_messages picture_messages
	git ls-files 'libsarn/*.cpp' 'libmeter/*.cpp' 'meter/*.cpp' 'meterlink/*.cpp' 'picture/*.cpp' 'source/*.cpp' 'probelink/*.cpp' 'station/*.cpp' 'tools/*.cpp' 'bench/*.cpp' | \
	  xargs -P $(JOBS) -n 1 clang-tidy --quiet -p build/tidy

## check-32bit   whether the probe compiles for 32-bit machines without a warning, by this machine's headers
.PHONY: check-32bit
check-32bit: build
	JOBS=$(JOBS) scripts/check-32bit

## cross         builds for ARCH (arm64, armhf) in a chroot of its own and tests under qemu; root
.PHONY: cross
cross: build
	scripts/cross $(ARCH)

## deb           Debian packages into build/deb, for this machine or ARCH (arm64, armhf), and lintian; root. SUITE=bookworm
##               or trixie for that Debian, here and for the next two; DEB_BUILD_OPTIONS=nocheck without the unit tests
.PHONY: deb check-packages
deb:
	scripts/deb $(ARCH)

## check-packages  installs, upgrades, removes and purges them in a Debian of its own; services, manuals, libsarn-dev; root
check-packages: deb
	scripts/check-packages

## test-booted   boots a Debian with them and tries what an operator would; root
.PHONY: test-booted
test-booted: build deb
	scripts/test-booted

## release-check  what has to hold before a release besides .ci/run, and takes hours; STEPS names some of it; root
.PHONY: release-check
release-check:
	scripts/release-check $(STEPS)

## clean         removes all builds
clean:
	rm -rf build
