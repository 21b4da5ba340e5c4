"""TDigest's Python members are the members the module registers."""

import inspect

import numpy as np
import pytest

import zotdigest
from zotdigest import TDigest, class_definition

DEFINITION = class_definition("TDigest")


def test_registered_methods_and_properties_are_documented_members():
    methods = {m["name"] for m in DEFINITION["methods"]} - {"TDigest"}
    assert methods == {"add", "cdf", "icdf", "trimmedMean", "merge", "centroids"}
    assert methods | {p["name"] for p in DEFINITION["properties"]} <= set(dir(TDigest))
    for p in DEFINITION["properties"]:
        assert inspect.getdoc(getattr(TDigest, p["name"])) == p["description"]
    assert TDigest.Delta.__doc__ == "Delta compression parameter"
    adds = [m for m in DEFINITION["methods"] if m["name"] == "add"]
    assert len(adds) == 20 and TDigest.add.__doc__.startswith("add(data, stream=None)")
    assert all(f"add({', '.join(m['inputs'])})" in TDigest.add.__doc__ for m in adds)
    assert zotdigest.merge.__doc__.startswith("merge(digests, stream=None)")
    assert "delta: object = 100.0" in zotdigest.column_digests.__doc__


def test_property_values_have_python_types():
    d = TDigest(np.arange(10.0), 50)
    assert type(d.Delta) is float and type(d.NumCentroids) is int and type(d.NumDataPoints) is int
    assert repr(d) == "TDigest(Delta=50.0, NumCentroids=10, NumDataPoints=10)"


def test_methods_work_bound_unbound_and_stored():
    d = TDigest(np.arange(100.0))
    icdf = d.icdf
    assert TDigest.icdf(d, 0.25) == icdf(0.25) == d.icdf(0.25)
    assert icdf.__self__ is d and TDigest.icdf.__name__ == "icdf"
    for call in (lambda: d.icdf(q=0.25), TDigest.icdf, lambda: TDigest.icdf(np.arange(3.0), 0.5)):
        with pytest.raises(TypeError):
            call()
