PYTHON ?= python3.10
# An environment for each version: .venv for 3.10, .venv-3.13 for 3.13.
NAMED := $(patsubst python%,%,$(filter python3.%,$(PYTHON)))
VERSION := $(or $(NAMED),$(shell $(PYTHON) -c 'import sys; print("%d.%d" % sys.version_info[:2])'))
VENV := .venv$(patsubst %,-%,$(filter-out 3.10,$(VERSION)))
ifdef NAMED  # where pyenv provides Python, no version depends on which others are installed
export PYENV_VERSION ?= $(NAMED)
endif
BIN := $(VENV)/bin
# scikit-build-core takes cmake and ninja from here, not from the machine.
export PATH := $(abspath $(BIN)):$(PATH)
export PIP_DISABLE_PIP_VERSION_CHECK := 1

MODULE := $(shell find src stubs -type f) CMakeLists.txt pyproject.toml
DATABASE_OPTION = $(if $(DATABASE),--database "$(DATABASE)")

.PHONY: demo test check-host torture test-postgres reliability sanitize coverage lint bench bench-check bench-versions format screenshots wheel install-into clean

demo: $(VENV)/demo.stamp  ## the main job on real input: make demo [REPO=path] [DATABASE=url]
	$(BIN)/python docs/demo.py $(DATABASE_OPTION) $(if $(REPO),"$(REPO)")

test: $(VENV)/test.stamp
	$(BIN)/python -m pytest -m "not long" $(TESTS)

HOST_PYTHON ?= $(BIN)/python
check-host: $(VENV)/test.stamp  ## what a host promises: make check-host HOST=package.module:factory [HOST_PYTHON=its interpreter]
	@test -n "$(HOST)" || { echo "HOST=package.module:factory is missing; docs/hosts.md says what that is" >&2; exit 2; }
	$(HOST_PYTHON) -m pytest conformance --host="$(HOST)"

torture: $(VENV)/test.stamp  ## the tests that take minutes: failures at every step, kills, allocation failures
	$(BIN)/python -m pytest -m long $(TESTS)

test-postgres: $(VENV)/postgres.stamp  ## the demo, and each test that uses a database, on a PostgreSQL server of their own
	$(BIN)/python tests/postgres_server.py sh -c '\
		$(BIN)/python docs/demo.py --database "$$QUILLSTONE_TEST_DATABASE" && \
		$(BIN)/python -m pytest -k postgresql $(TESTS)'

reliability: $(VENV)/postgres.stamp  ## all of these tests; at the end of each run are the figures of RELIABILITY.md
	$(BIN)/python -m pytest tests
	$(BIN)/python tests/postgres_server.py $(BIN)/python -m pytest -k postgresql tests

# The module built another way, found before the installed one.
build/%/quillstone: $(VENV)/test.stamp $(MODULE)
	$(BIN)/cmake -S . -B build/$* -G Ninja -DCMAKE_BUILD_TYPE=$* -DPython_EXECUTABLE=$(CURDIR)/$(BIN)/python >/dev/null
	$(BIN)/cmake --build build/$*
	$(BIN)/cmake --install build/$* --prefix build/$* >/dev/null
	@touch $@

# Memory of thread-local variables is guessed at by the sanitizers' hook, wrongly with this C library: the checker crashes.
SANITIZER_OPTIONS := allocator_may_return_null=1:intercept_tls_get_addr=0
SANITIZED = PYTHONPATH=build/Sanitize PYTHONMALLOC=malloc ASAN_OPTIONS=$(SANITIZER_OPTIONS):detect_leaks=$(1) \
	LD_PRELOAD="$$(g++ -print-file-name=libasan.so) $$(g++ -print-file-name=libstdc++.so)" $(BIN)/python
SWEEPS := tests/test_faults.py tests/test_memory.py tests/test_order.py

sanitize: build/Sanitize/quillstone  ## the suite and the sweeps under AddressSanitizer and UndefinedBehaviorSanitizer
	$(call SANITIZED,0) -m pytest -m "not long" $(TESTS)
	$(call SANITIZED,1) -m pytest -m long $(SWEEPS)
	$(call SANITIZED,1) -m pytest -m "not long" $(SWEEPS) tests/test_language.py tests/test_surface.py

coverage: build/Coverage/quillstone $(VENV)/coverage.stamp  ## which lines and branches of the C++ the suite and the sweeps run
	find build/Coverage -name '*.gcda' -delete
	PYTHONPATH=build/Coverage $(BIN)/python -m pytest -m "not long" $(TESTS)
	PYTHONPATH=build/Coverage $(BIN)/python -m pytest -m long $(SWEEPS)
	$(BIN)/gcovr

lint: $(VENV)/lint.stamp
	git ls-files '*.cpp' '*.hpp' | xargs $(BIN)/clang-format --dry-run --Werror
	$(BIN)/cmake -S . -B build/lint-$(VERSION) -G Ninja -DCMAKE_CXX_COMPILER=g++ -DPython_EXECUTABLE=$(CURDIR)/$(BIN)/python >/dev/null
	git ls-files 'src/*.cpp' | xargs -P 2 -n 1 $(BIN)/clang-tidy --quiet -p build/lint-$(VERSION)
	$(BIN)/ruff check
	$(BIN)/ruff format --check
	$(BIN)/mypy host
	cd host && ../$(BIN)/python -m mypy.stubtest --mypy-config-file ../pyproject.toml quillstone.workers.wiki.page_retirement

bench: $(VENV)/bench.stamp  ## every figure of BENCHMARKS.md again but those of the versions, and its plot
	mkdir -p build/bench
	rm -f build/bench/*
	$(BIN)/python benchmarks/timed_memory.py --fast --output build/bench/memory.json
	$(BIN)/python benchmarks/timed_sqlite.py --output build/bench/sqlite.json
	$(BIN)/python benchmarks/growth.py build/bench/growth.json
	$(BIN)/python benchmarks/report.py build/bench

bench-versions: $(VENV)/versions.stamp  ## on each version that is found, the module beside Cython's build and plain Python: a table of BENCHMARKS.md
	environments=; for version in 3.10 3.11 3.12 3.13 3.14; do \
		PYENV_VERSION=$$version python$$version -c '' 2>/dev/null || continue; \
		environment=.venv$$(test $$version = 3.10 || echo -$$version); \
		PYENV_VERSION=$$version $(MAKE) --no-print-directory PYTHON=python$$version $$environment/versions.stamp || exit; \
		environments="$$environments $$environment"; \
	done; \
	$(BIN)/python benchmarks/versions.py $$environments

bench-check: $(VENV)/module.stamp  ## instructions a page against their bounds; skipped without valgrind
	$(BIN)/python benchmarks/instructions.py

screenshots: $(VENV)/demo.stamp  ## the pictures of the docs again, from a real run
	$(BIN)/python docs/screenshots.py

format: $(VENV)/lint.stamp
	git ls-files '*.cpp' '*.hpp' | xargs $(BIN)/clang-format -i
	$(BIN)/ruff check --fix
	$(BIN)/ruff format

# Of the commit, so that it gives the same bytes wherever and whenever it is built; a tree without git is of 1980.
wheel: export SOURCE_DATE_EPOCH := $(or $(shell git log -1 --format=%ct 2>/dev/null),315532800)
wheel: $(VENV)/wheel.stamp  ## sdist and wheel into dist/, the wheel's manylinux tag as auditwheel finds it
	rm -rf dist build/dist
	umask 022 && \
	$(BIN)/python -c 'import scikit_build_core.build as build; build.build_sdist("dist")' && \
	$(BIN)/pip wheel --quiet --no-build-isolation --no-deps -w build/dist dist/*.tar.gz && \
	$(BIN)/auditwheel repair -w dist build/dist/*.whl
	$(BIN)/auditwheel show dist/*.whl

install-into:  ## the extension and its types into a host's own package tree: make install-into TREE=path
	@test -d "$(TREE)/quillstone" || { echo "TREE=$(TREE) holds no package quillstone" >&2; exit 2; }
	@$(MAKE) --no-print-directory $(VENV)/build.stamp
	$(BIN)/cmake -S . -B build/tree-$(VERSION) -G Ninja -DPython_EXECUTABLE=$(CURDIR)/$(BIN)/python >/dev/null
	$(BIN)/cmake --build build/tree-$(VERSION)
	$(BIN)/cmake --install build/tree-$(VERSION) --prefix "$(TREE)"

clean:
	rm -rf build dist .venv .venv-*

$(VENV)/created.stamp: .python-version
	@$(PYTHON) -c 'import sys; sys.exit(sys.version_info < (3, 10))' || \
		{ echo "CPython 3.10 or later is needed: make PYTHON=python3.13, or PYTHON=path" >&2; exit 2; }
	$(PYTHON) -m venv $(VENV)
	@touch $@

# Each kind of work installs no more than it needs: %.stamp has requirements/%.txt in place, and the module built.
$(VENV)/build.stamp: requirements/build.txt $(VENV)/created.stamp
	$(BIN)/pip install --quiet -r $<
	@touch $@

$(VENV)/module.stamp: $(VENV)/build.stamp $(MODULE)
	$(BIN)/pip install --quiet --no-build-isolation --no-deps --force-reinstall .
	@touch $@

$(VENV)/demo.stamp: requirements/demo.txt host/pyproject.toml $(VENV)/module.stamp
	$(BIN)/pip install --quiet -r $<
	$(BIN)/pip install --quiet --no-build-isolation --no-deps -e host
	@touch $@

$(VENV)/wheel.stamp: requirements/wheel.txt $(VENV)/build.stamp
	$(BIN)/pip install --quiet -r $<
	@touch $@

KINDS := bench coverage lint postgres test versions
$(KINDS:%=$(VENV)/%.stamp): $(VENV)/%.stamp: requirements/%.txt $(VENV)/demo.stamp
	$(BIN)/pip install --quiet -r $<
	@touch $@
