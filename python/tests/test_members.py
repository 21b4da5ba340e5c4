"""TDigest's Python members are the members the module registers."""

import inspect

import numpy as np
import pytest

import zotdigest
from zotdigest import TDigest, class_definition

DEFINITION = class_definition("TDigest")
METHOD_NAMES = {m["name"] for m in DEFINITION["methods"]} - {"TDigest"}


def test_every_registered_method_and_property_is_a_member():
    members = set(dir(TDigest))
    assert METHOD_NAMES <= members
    assert {p["name"] for p in DEFINITION["properties"]} <= members
    assert METHOD_NAMES == {"add", "cdf", "icdf", "trimmedMean", "merge", "centroids"}


def test_property_docstrings_are_the_registered_descriptions():
    for p in DEFINITION["properties"]:
        assert inspect.getdoc(getattr(TDigest, p["name"])) == p["description"]
    assert TDigest.Delta.__doc__ == "Delta compression parameter"
    assert TDigest.NumCentroids.__doc__ == "Number of centroids in summary structure"


def test_registered_access_codes_and_setters():
    props = {p["name"]: p for p in DEFINITION["properties"]}
    assert [props[n]["get_access"] for n in ("AVLTreeSummary", "Delta")] == [2, 0]
    assert all(p["set_access"] == 2 for p in props.values())
    assert not props["NumCentroids"]["has_setter"]
    assert all(m["access"] == zotdigest._core.PUBLIC_ACCESS for m in DEFINITION["methods"])


def test_method_docstrings_list_the_registered_overloads():
    adds = [m for m in DEFINITION["methods"] if m["name"] == "add"]
    assert len(adds) == 20
    doc = TDigest.add.__doc__
    assert doc.startswith("add(data, stream=None)")
    assert all(f"add({', '.join(m['inputs'])})" in doc for m in adds)


def test_property_values_have_python_types():
    d = TDigest(np.arange(10.0), 50)
    assert type(d.Delta) is float and type(d.NumCentroids) is int and type(d.NumDataPoints) is int
    assert repr(d) == "TDigest(Delta=50.0, NumCentroids=10, NumDataPoints=10)"


def test_the_module_and_package_are_described():
    info = zotdigest.module_info()
    assert info["routines"] == 3 and info["version"] == zotdigest.__version__
    assert set(zotdigest.__all__) <= set(dir(zotdigest))


def test_methods_work_bound_unbound_and_stored():
    d = TDigest(np.arange(100.0))
    icdf = d.icdf
    assert TDigest.icdf(d, 0.25) == icdf(0.25) == d.icdf(0.25)
    assert icdf.__self__ is d and TDigest.icdf.__name__ == "icdf"
    with pytest.raises(TypeError):
        d.icdf(q=0.25)
    with pytest.raises(TypeError):
        TDigest.icdf()
    with pytest.raises(TypeError):
        TDigest.icdf(np.arange(3.0), 0.5)


def test_the_module_functions_have_the_documented_defaults():
    assert zotdigest.merge.__doc__.startswith("merge(digests: object, stream: object = None)")
    assert "delta: object = 100.0" in zotdigest.column_digests.__doc__
    assert not hasattr(zotdigest, "merge_digests")
