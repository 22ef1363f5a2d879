# The front door. Each target works as the very first command on a fresh Debian machine.

JOBS ?= $(shell nproc)
SUDO := $(if $(filter 0,$(shell id -u)),,sudo)
PACKAGES = $(shell sed 's/\#.*//' packages.txt)
PEERS = libkf5dav-dev libkf5coreaddons-dev python3-caldav
TOOLKITS = libgtk-4-dev qtbase5-dev xvfb xauth
FUZZ_SECONDS ?= 60
PREFIX ?= /usr/local
POLICY = /usr/sbin/policy-rc.d
APT_GET = $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=300
SOURCES = $(shell git ls-files -co --exclude-standard '*.h' '*.cpp')

.PHONY: deps peers build demo test test-hosts coverage bench fuzz lint includes format format-check docs install clean

# Installs those of the packages $(1) that are missing.
define install
@missing=$$(for package in $(1); do \
  dpkg -s $$package 2>/dev/null | grep -q '^Status: install ok installed' || echo $$package; \
done); \
if [ -n "$$missing" ]; then \
  echo "installing:" $$missing; \
  if ! [ -e $(POLICY) ]; then : "the servers among them are for tests, which start their own"; \
    trap '$(SUDO) rm -f $(POLICY)' EXIT; trap 'exit 1' HUP INT TERM; \
    printf '#!/bin/sh\nexit 101\n' | $(SUDO) install -m 755 /dev/stdin $(POLICY); \
  fi; \
  $(APT_GET) update && $(APT_GET) install -y --no-install-recommends $$missing; \
fi
endef

deps: ## install the Debian packages that are missing
	$(call install,$(PACKAGES))

peers: deps ## the same for those that only `bench` compares with
	$(call install,$(PEERS))

build: deps ## build library, examples and tests
	cmake --preset release $(CONFIGURE)
	cmake --build build/release -j $(JOBS)

demo: build ## read, change, save and re-synchronise real calendar files
	examples/demo.sh build/release/examples

test: build ## run every test
	ctest --test-dir build/release --output-on-failure -j $(JOBS)

test-hosts: deps ## run the library in GTK's and Qt's loops, without a screen
	$(call install,$(TOOLKITS))
	cmake --preset release -DQUILLMERE_TEST_HOSTS=ON
	cmake --build build/release -j $(JOBS) --target glib_host gtk_host qt_host
	ctest --test-dir build/release --output-on-failure -R '^hosts\.'

coverage: deps ## which lines of the library the tests run, in build/coverage/report; fails below 95 %
	$(call install,gcovr)
	cmake --preset coverage
	cmake --build build/coverage -j $(JOBS)
	find build/coverage -name '*.gcda' -delete
	ctest --test-dir build/coverage --output-on-failure -j $(JOBS) -LE packaging
	mkdir -p build/coverage/report
	gcovr --root . --filter quillmere/ --exclude-throw-branches --sort-uncovered \
	  --html-details build/coverage/report/index.html --txt --fail-under-line 95 build/coverage

bench: peers ## measure beside the peers; prints ratios
	cmake --preset release -DQUILLMERE_BUILD_BENCHMARKS=ON
	cmake --build build/release -j $(JOBS)
	benchmarks/run.sh build/release/benchmarks

fuzz: deps ## run every fuzzer for FUZZ_SECONDS (60)
	cmake --preset fuzz
	cmake --build build/fuzz -j $(JOBS)
	fuzz/run.sh build/fuzz/fuzz $(FUZZ_SECONDS)

lint: deps ## clang-tidy over the library, the examples and the tests
	cmake --preset clang
	run-clang-tidy -quiet -j $(JOBS) -p build/clang '$(CURDIR)/(quillmere|examples|tests|fuzz)/'

includes: deps ## which includes the library does not use; the full advice is in build/includes.txt
	$(call install,iwyu)
	cmake --preset clang
	iwyu_tool -j $(JOBS) -p build/clang quillmere -- -Xiwyu --no_fwd_decls \
	  -Xiwyu --mapping_file=$(CURDIR)/cmake/iwyu.imp > build/includes.txt
	@awk '/should remove/ { file = $$1 } /^- #include/ { print file ": " $$0; found = 1 } \
	  END { exit found }' build/includes.txt

format: deps ## lay the sources out
	clang-format -i $(SOURCES)

format-check: deps ## fail where the layout differs
	clang-format --dry-run --Werror $(SOURCES)

docs: ## the API reference, in build/docs/html
	command -v doxygen >/dev/null || $(SUDO) apt-get install -y -q --no-install-recommends doxygen
	mkdir -p build/docs
	doxygen docs/Doxyfile

install: build ## install to PREFIX (/usr/local)
	cmake --install build/release --prefix $(PREFIX)

clean:
	rm -rf build
