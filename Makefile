# Entry points; the work is done by the scripts of the same names.

.PHONY: help demo test packages coverage fuzz bench docs clean

help:
	@echo 'make demo      index documents of this machine and find queries in them'
	@echo 'make test      build and test everything: Linux, sanitizers, Windows under Wine'
	@echo 'make packages  packages for Debian, Windows, Python, C# and Node, in build/packages'
	@echo 'make coverage  run the tests with coverage and print it by folder'
	@echo 'make fuzz      feed hostile inputs to all fuzz targets, 20 minutes each'
	@echo 'make bench     measure everything and write the tables of docs/performance.md'
	@echo 'make docs      render docs/ to a site in build/docs/site'
	@echo 'make clean     remove build/'
	@echo
	@echo 'All of them work below build/ and install missing Debian packages first.'

demo:
	@scripts/demo

test:
	@scripts/test

packages:
	@scripts/packages

coverage:
	@scripts/coverage

fuzz:
	@scripts/fuzz

bench:
	@scripts/bench

docs:
	@scripts/docs

clean:
	rm -rf build
