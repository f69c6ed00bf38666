# The front door. Each target sets up what it needs; the work is done by scripts/.

# What `make run` runs.
LAB = replay tests/data/session.pcapng --filter blocker

.PHONY: help run live test stress faults fuzz races mutants windows docs bench bench-compare clean

help:
	@echo 'make run     build the lab and replay a recorded capture through the sample filter'
	@echo 'make live    run real programs across the lab, between network namespaces (root)'
	@echo 'make test    build and test everything: gcc, clang, sanitizers, the Windows drivers under Wine'
	@echo 'make stress  random calls from many threads for 40 minutes, and a billion frames counted exactly'
	@echo 'make races   lay out races: threads of the framework in every order up to a depth, and many by chance'
	@echo 'make mutants build known faults into a copy of the tree, one by one: the tests must notice each'
	@echo 'make faults  let each call that may fail do so, one by one, and count the branches that this takes'
	@echo 'make fuzz    run each fuzzer to 10 million runs, or for an hour; FUZZ="--seconds 60" for other arguments'
	@echo 'make windows build the Windows drivers into dist/'
	@echo 'make docs    make the reference of the public headers: build/docs/index.html'
	@echo 'make bench   compare with the limits of the machine and with other software, side by side'
	@echo 'make bench-compare BASE=rev   compare with another revision of this tree'
	@echo 'make clean   remove everything that was built'
	@echo
	@echo 'make run LAB="replay FILE --filter NAME" runs the lab with other arguments.'

run:
	@scripts/run $(LAB)

live:
	@scripts/setup live
	@scripts/build gcc-release ndisfilter-lab ndisfilterctl samples
	@scripts/live

test:
	@scripts/test

stress:
	@scripts/setup test
	@scripts/stress

# What the search is given: RACES="--only 'Parking*' --depth 3".
RACES = --fully

races:
	@scripts/setup test
	@scripts/build gcc-races test-races
	@build/gcc-races/tests/test-races $(RACES)

mutants:
	@scripts/setup test
	@scripts/mutants

faults:
	@scripts/setup test
	@scripts/faults

fuzz:
	@scripts/setup fuzz
	@scripts/fuzz $(FUZZ)

windows:
	@scripts/windows

docs:
	@scripts/docs

bench:
	@scripts/bench

bench-compare:
	@scripts/bench --compare $(or $(BASE),$(error BASE is missing: make bench-compare BASE=main))

clean:
	rm -rf build dist
