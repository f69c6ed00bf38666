# The front door. Each target sets up what it needs; the work is done by scripts/.

# What `make run` runs.
LAB = replay tests/data/session.pcapng --filter blocker

.PHONY: help run test bench clean

help:
	@echo 'make run     build the lab and replay a recorded capture through the sample filter'
	@echo 'make test    build and test everything: gcc, clang, sanitizers, Windows compile check'
	@echo 'make bench   build and run the benchmarks'
	@echo 'make clean   remove everything that was built'
	@echo
	@echo 'make run LAB="replay FILE --filter NAME" runs the lab with other arguments.'

run:
	@scripts/run $(LAB)

test:
	@scripts/test

bench:
	@scripts/bench

clean:
	rm -rf build
