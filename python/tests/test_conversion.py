"""How NumPy values reach the module: classes, layouts and copies."""

import numpy as np
import pytest

from zotdigest import RandomStream, TDigest, _core

NUMERIC = {
    "double": np.float64,
    "single": np.float32,
    "int8": np.int8,
    "uint8": np.uint8,
    "int16": np.int16,
    "uint16": np.uint16,
    "int32": np.int32,
    "uint32": np.uint32,
    "int64": np.int64,
    "uint64": np.uint64,
}


def info(value):
    return _core._host_array_info(value)


def serial(data, seed=3):
    return TDigest(data, None, RandomStream(seed=seed))


def same_digest(a, b):
    ma, ca = a.centroids()
    mb, cb = b.centroids()
    np.testing.assert_array_equal(ma, mb)
    np.testing.assert_array_equal(ca, cb)


@pytest.mark.parametrize("name, dtype", NUMERIC.items(), ids=list(NUMERIC))
class TestElementTypes:
    def test_arrays_keep_their_class_and_are_not_copied(self, name, dtype):
        x = np.arange(120).astype(dtype)
        seen = info(x)
        assert seen["class"] == name
        assert seen["dims"] == (120, 1)
        assert not seen["owns_data"]
        assert seen["address"] == x.ctypes.data

    def test_numpy_scalars_keep_their_class(self, name, dtype):
        assert info(dtype(7))["class"] == name
        assert info(np.array(7, dtype))["dims"] == (1, 1)

    def test_digest_equals_the_one_of_the_same_values_as_double(self, name, dtype):
        x = np.arange(120).astype(dtype)
        same_digest(serial(x), serial(x.astype(np.float64)))
        d = TDigest()
        d.add(x)
        assert d.NumDataPoints == 120

    def test_queries_take_any_numeric_class_as_double(self, name, dtype):
        d = serial(np.arange(120.0))
        q = np.array([0, 1, 2], dtype)
        np.testing.assert_array_equal(d.trimmedMean(q * 0), d.trimmedMean(np.zeros(3)))
        np.testing.assert_array_equal(d.cdf(q), d.cdf(q.astype(np.float64)))


class TestLayouts:
    matrix = np.random.default_rng(8).normal(size=(30, 20))

    def test_fortran_ordered_arrays_are_viewed(self):
        f = np.asfortranarray(self.matrix)
        seen = info(f)
        assert seen["address"] == f.ctypes.data and seen["dims"] == (30, 20)
        assert info(self.matrix.T)["address"] == self.matrix.ctypes.data

    def test_c_ordered_arrays_are_copied_to_column_major(self):
        seen = info(self.matrix)
        assert seen["address"] != self.matrix.ctypes.data and seen["dims"] == (30, 20)

    @pytest.mark.parametrize(
        "view",
        [
            lambda m: m,
            lambda m: m.T,
            lambda m: m[::2, 1::3],
            lambda m: m[:, 3],
            lambda m: m.reshape(-1)[::-7],
            lambda m: m.astype(">f8"),
            lambda m: m.reshape(6, 5, 20),
        ],
        ids=["c-order", "transposed", "strided-2d", "column-of-c", "reversed-1d", "big-endian", "3d"],
    )
    def test_any_layout_gives_the_answers_of_its_contiguous_copy(self, view):
        x = view(self.matrix)
        copy = np.array(x, dtype=np.float64, order="F")
        same_digest(serial(x), serial(copy))
        d = serial(self.matrix)
        np.testing.assert_array_equal(d.cdf(x), d.cdf(copy))

    def test_read_only_arrays_are_accepted(self):
        x = np.arange(10.0)
        x.flags.writeable = False
        assert TDigest(x).NumDataPoints == 10
        assert info(x)["address"] == x.ctypes.data


class TestOtherValues:
    @pytest.mark.parametrize(
        "value, cls, dims",
        [
            (None, "double", (0, 0)),
            ([], "double", (0, 0)),
            ((), "double", (0, 0)),
            (3, "double", (1, 1)),
            (2.5, "double", (1, 1)),
            (True, "logical", (1, 1)),
            (np.array([[True, False]]), "logical", (1, 2)),
            ("abc", "char", (1, 3)),
            ([1, 2, 3], "int64", (3, 1)),
            ([[1.0, 2.0]], "double", (1, 2)),
        ],
    )
    def test_python_values_map_to_host_classes(self, value, cls, dims):
        seen = info(value)
        assert (seen["class"], seen["dims"]) == (cls, dims)

    @pytest.mark.parametrize("dtype, cls", [(np.complex128, "double"), (np.complex64, "single")])
    def test_complex_arrays_are_copied_into_separate_parts(self, dtype, cls):
        z = np.array([1 + 2j, 3 - 4j], dtype)
        seen = info(z)
        assert (seen["class"], seen["complex"], seen["owns_data"]) == (cls, True, True)

    @pytest.mark.parametrize(
        "value",
        [np.zeros(2, np.float16), np.zeros(2, np.longdouble), np.array(["a", "b"]), object()],
        ids=["float16", "longdouble", "strings", "object"],
    )
    def test_values_without_a_host_class_raise_type_error(self, value):
        with pytest.raises(TypeError):
            info(value)

    def test_digests_become_object_arrays_of_their_shape(self):
        d = TDigest()
        assert (info(d)["class"], info(d)["dims"]) == ("TDigest", (1, 1))
        assert info([d, d, d])["dims"] == (3, 1)
        assert info(np.array([[d, d]], dtype=object))["dims"] == (1, 2)
        assert info(RandomStream())["class"] == "RandomStream"
