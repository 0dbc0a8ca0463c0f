# The two set-up commands: `make run` (the main job) and `make test` (install, build, test).
BUILD ?= build
TSAN_BUILD ?= build-tsan
JOBS ?= $(shell nproc)

PREFIX ?= /usr/local
DESTDIR ?=

.PHONY: all deps build run test test-unit test-tsan bench install clean

all: build

deps:
	@scripts/install-deps

$(BUILD)/build.ninja: | deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: deps $(BUILD)/build.ninja
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@scripts/demo $(BUILD)

test: test-unit test-tsan

test-unit: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# The concurrency tests again, under ThreadSanitizer, in a build of their own.
test-tsan: deps
	@cmake -S . -B $(TSAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_TSAN=ON >/dev/null
	@cmake --build $(TSAN_BUILD) -j $(JOBS) --target tarn_concurrency_tests
	@ctest --test-dir $(TSAN_BUILD) --output-on-failure -L concurrency

# Installs tarn, its data, the D-Bus activation file and the systemd user unit under $(PREFIX)
# (staged under $(DESTDIR) when set).
install: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target tarn
	@DESTDIR=$(DESTDIR) cmake --install $(BUILD) >/dev/null
	@echo "installed under $(DESTDIR)$(PREFIX)"

bench: build
	@for b in $(BUILD)/bench/bench_*; do case "$$b" in *DeckStartBench) ;; *) "$$b" ;; esac; done
	@bench/deck-start $(BUILD)
	@bench/desk-window $(BUILD)

clean:
	rm -rf $(BUILD) $(TSAN_BUILD)
