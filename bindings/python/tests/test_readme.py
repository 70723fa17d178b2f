"""The code of the README does what stands there."""
import doctest

from conftest import ROOT

README = ROOT / "bindings/python/README.md"


def test_the_tour(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    result = doctest.testfile(str(README), module_relative=False, optionflags=doctest.ELLIPSIS)
    assert result.attempted > 15
    assert result.failed == 0
