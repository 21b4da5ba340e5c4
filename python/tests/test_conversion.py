"""How NumPy values reach the module: classes, layouts and copies."""

import numpy as np
import pytest

from zotdigest import RandomStream, TDigest, _core

NUMERIC = {"double": np.float64, "single": np.float32, "int8": np.int8, "uint8": np.uint8, "int16": np.int16,
           "uint16": np.uint16, "int32": np.int32, "uint32": np.uint32, "int64": np.int64, "uint64": np.uint64}


def info(value):
    return _core._host_array_info(value)


def serial(data, seed=3):
    return TDigest(data, None, RandomStream(seed=seed))


def same_digest(a, b):
    for x, y in zip(a.centroids(), b.centroids()):
        np.testing.assert_array_equal(x, y)


@pytest.mark.parametrize("name, dtype", NUMERIC.items(), ids=list(NUMERIC))
def test_each_numeric_dtype_keeps_its_class_uncopied_and_reads_as_its_doubles(name, dtype):
    x = (np.arange(120) - (0 if name[0] == "u" else 60)).astype(dtype)  # a sign misread shows
    seen = info(x)
    assert (seen["class"], seen["dims"], seen["owns_data"]) == (name, (120, 1), False)
    assert seen["address"] == x.ctypes.data
    assert info(dtype(7))["class"] == name and info(np.array(7, dtype))["dims"] == (1, 1)
    d = serial(x)
    same_digest(d, serial(x.astype(np.float64)))
    d.add(x)
    assert d.NumDataPoints == 240
    # Queries take any numeric class as double.
    q = np.array([0, 1, 2], dtype)
    np.testing.assert_array_equal(d.cdf(q), d.cdf(q.astype(np.float64)))
    np.testing.assert_array_equal(d.trimmedMean(q * 0), d.trimmedMean(np.zeros(3)))


MATRIX = np.random.default_rng(8).normal(size=(30, 20))


def test_fortran_ordered_arrays_are_viewed_and_c_ordered_copied_to_column_major():
    f = np.asfortranarray(MATRIX)
    assert (info(f)["address"], info(f)["dims"]) == (f.ctypes.data, (30, 20))
    assert info(MATRIX.T)["address"] == MATRIX.ctypes.data
    assert (info(MATRIX)["address"] != MATRIX.ctypes.data) and info(MATRIX)["dims"] == (30, 20)
    x = np.arange(10.0)
    x.flags.writeable = False  # read-only arrays are viewed too
    assert TDigest(x).NumDataPoints == 10 and info(x)["address"] == x.ctypes.data


@pytest.mark.parametrize(
    "view",
    [lambda m: m, lambda m: m[::2, 1::3], lambda m: m.reshape(-1)[::-7], lambda m: m.astype(">f8"),
     lambda m: m.reshape(6, 5, 20)],
    ids=["c-order", "strided-2d", "reversed-1d", "big-endian", "3d"],
)
def test_any_layout_gives_the_answers_of_its_contiguous_copy(view):
    x = view(MATRIX)
    copy = np.array(x, dtype=np.float64, order="F")
    same_digest(serial(x), serial(copy))
    np.testing.assert_array_equal(serial(MATRIX).cdf(x), serial(MATRIX).cdf(copy))


@pytest.mark.parametrize(
    "value, cls, dims",
    [(None, "double", (0, 0)), ([], "double", (0, 0)), ((), "double", (0, 0)), (3, "double", (1, 1)),
     (2.5, "double", (1, 1)), (True, "logical", (1, 1)), (np.array([[True, False]]), "logical", (1, 2)),
     ("abc", "char", (1, 3)), ([1, 2, 3], "int64", (3, 1)), ([[1.0, 2.0]], "double", (1, 2)),
     (np.array([1 + 2j, 3 - 4j]), "double", (2, 1)), (np.array([1j], np.complex64), "single", (1, 1))],
)
def test_python_values_map_to_host_classes(value, cls, dims):
    seen = info(value)
    assert (seen["class"], seen["dims"]) == (cls, dims)
    assert seen["complex"] == np.iscomplexobj(value)
    assert seen["owns_data"] or not seen["complex"]  # complex parts are copied apart


@pytest.mark.parametrize("value", [np.zeros(2, np.float16), np.zeros(2, np.longdouble), np.array(["a", "b"]), object()])
def test_values_without_a_host_class_raise_type_error(value):
    with pytest.raises(TypeError):
        info(value)
