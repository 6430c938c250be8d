# The front door: `make help` lists what there is. CMake with Ninja does the work, see CMakePresets.json.

FILE ?=

.PHONY: help deps deps-tests deps-lint build demo demo-exchange demo-gateway check test test-asan test-tsan fuzz bench lint format install clean
.DEFAULT_GOAL := help

help:
	@echo "make build      build/lib/libzol.so, build/bin/vek and the examples"
	@echo "make demo       the main job on real input: words of a text, counted by three processes and a gateway"
	@echo "                (FILE=path counts the words of that file)"
	@echo "make demo-exchange  a small market of five processes, whose gateway is killed on the way"
	@echo "                (FILE=path trades the orders of that file)"
	@echo "make demo-gateway   fifty processes under load, some killed, some stopped, and what became of every message"
	@echo "make check      builds, and runs the tests that take seconds: the quick loop of an edit, under a minute"
	@echo "make test       all tests"
	@echo "make test-asan  all tests under the address and undefined behaviour sanitizers"
	@echo "make test-tsan  all tests under the thread sanitizer"
	@echo "make fuzz       whatever takes foreign bytes under random input, five minutes for each of tests/fuzz/seeds"
	@echo "make bench      the benchmarks, as lines of group, metric, value and unit"
	@echo "make lint       each language through its checker, the order of the folders, the lines of tests"
	@echo "make format     puts every source in the house format"
	@echo "make install    to DESTDIR and the prefix of CMake"
	@echo "make clean      removes build/"

deps:
	@scripts/install-deps
deps-tests:
	@scripts/install-deps tests
deps-lint:
	@scripts/install-deps lint

build/build.ninja: | deps
	@cmake --preset release
build/asan/build.ninja: | deps
	@cmake --preset asan
build/tsan/build.ninja: | deps
	@cmake --preset tsan

build: deps build/build.ninja
	@cmake --build --preset release

# A demonstration builds what it runs and no more.
demo: deps build/build.ninja
	@cmake --build --preset release --target vek wordcount
	@examples/wordcount/demo $(if $(FILE),"$(FILE)")

demo-exchange: deps build/build.ninja
	@cmake --build --preset release --target vek exchange
	@examples/exchange/demo $(if $(FILE),"$(FILE)")

demo-gateway: build
	@examples/gateway/demo

check: build
	@ctest --preset check

test: deps-tests build
	@ctest --preset release

test-asan: deps-tests build/asan/build.ninja
	@cmake --build --preset asan
	@ctest --preset asan

test-tsan: deps-tests build/tsan/build.ninja
	@cmake --build --preset tsan
	@ctest --preset tsan

fuzz: deps
	@scripts/fuzz

bench: build
	@bench/run

# After the build, since some headers are made by it.
lint: deps-lint build
	@scripts/lint

format: deps
	@scripts/sources | xargs clang-format -i

install: build
	@cmake --install build

clean:
	@rm -rf build
