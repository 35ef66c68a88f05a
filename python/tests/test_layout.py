"""The package's view of the shared records against the compiler's."""

import ctypes
import json
import struct
import subprocess
import unittest

import numpy

import quvo
from quvo import _health, _layout, _shm
from support import tool_path

# Numpy kind of a C element, by the layout program's kind and element size.
_NUMPY_BASES = {("f", 8): "f8", ("i", 4): "i4", ("u", 4): "u4", ("u", 2): "u2"}


class LayoutTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        output = subprocess.run([tool_path("QUVO_LAYOUT_PATH")], capture_output=True, text=True, check=True).stdout
        cls.layout = json.loads(output)

    def test_dtype_matches_instrument_field_for_field(self):
        dtype = quvo.INSTRUMENT_DTYPE
        c_fields = self.layout["instrument"]["fields"]
        self.assertEqual(dtype.itemsize, self.layout["instrument"]["size"])
        self.assertEqual(list(dtype.names), [field["name"] for field in c_fields])
        for field in c_fields:
            with self.subTest(field=field["name"]):
                field_dtype, offset = dtype.fields[field["name"]][:2]
                self.assertEqual(offset, field["offset"])
                self.assertEqual(field_dtype.itemsize, field["size"])
                if field["element_size"] == 1 and field["kind"] == "u" and field["count"] > 1:
                    self.assertEqual(field_dtype, numpy.dtype(f"S{field['count']}"))
                    continue
                expected_shape = () if field["count"] == 1 else (field["count"],)
                self.assertEqual(field_dtype.shape, expected_shape)
                expected_base = numpy.dtype(_NUMPY_BASES[field["kind"], field["element_size"]])
                self.assertEqual(field_dtype.base, expected_base)
                self.assertTrue(field_dtype.base.isnative)

    def test_plain_decoder_covers_every_field_at_its_offset(self):
        c_fields = self.layout["instrument"]["fields"]
        self.assertEqual(
            [(name, offset) for name, offset, _, _ in quvo.INSTRUMENT_FIELDS],
            [(field["name"], field["offset"]) for field in c_fields],
        )
        for (name, _, code, count), field in zip(quvo.INSTRUMENT_FIELDS, c_fields):
            with self.subTest(field=name):
                self.assertEqual(struct.calcsize(f"={count}{code}"), field["size"])
                self.assertEqual(count, field["count"])
        self.assertEqual(_layout.INSTRUMENT_STRUCT.size, self.layout["instrument"]["size"])

    def test_share_offsets_and_sizes(self):
        self.assertEqual(quvo.MD_AREA_SIZE, self.layout["share"]["size"])
        self.assertEqual(
            list(quvo.SHARE_FIELDS),
            [(field["name"], field["offset"], field["size"]) for field in self.layout["share"]["fields"]],
        )
        self.assertEqual(struct.calcsize(_layout.COUNTERS_FORMAT), 16)

    def test_constants(self):
        for name, value in self.layout["constants"].items():
            with self.subTest(constant=name):
                holder = _shm if name in ("IPC_RMID", "IPC_STAT", "SHM_RDONLY") else quvo
                self.assertEqual(getattr(holder, name), value)

    def test_shmid_ds_fields_read_by_the_package(self):
        c_record = self.layout["shmid_ds"]
        self.assertGreaterEqual(ctypes.sizeof(_shm.ShmidDs), c_record["size"])
        for field in c_record["fields"]:
            with self.subTest(field=field["name"]):
                described = getattr(_shm.ShmidDs, field["name"])
                self.assertEqual(described.offset, field["offset"])
                self.assertEqual(described.size, field["size"])


class HealthLayoutTest(unittest.TestCase):
    """The package's table of the health segment against the compiler's, record by record."""

    @classmethod
    def setUpClass(cls):
        output = subprocess.run([tool_path("QUVO_LAYOUT_PATH")], capture_output=True, text=True, check=True).stdout
        cls.health = json.loads(output)["health"]

    def test_every_record_field_for_field(self):
        c_records = self.health["records"]
        self.assertEqual(sorted(quvo.HEALTH_RECORDS), sorted(c_records))
        for record, (size, fields) in quvo.HEALTH_RECORDS.items():
            c_fields = c_records[record]["fields"]
            with self.subTest(record=record):
                self.assertEqual(size, c_records[record]["size"])
                self.assertEqual([(name, offset) for name, offset, _, _ in fields],
                                 [(field["name"], field["offset"]) for field in c_fields])
            for (name, _, code, count), field in zip(fields, c_fields):
                with self.subTest(record=record, field=name):
                    self.assertEqual(count, field["count"])
                    if code in quvo.HEALTH_RECORDS:
                        self.assertEqual(field["kind"], "record")
                        self.assertEqual(quvo.HEALTH_RECORDS[code][0], field["element_size"])
                    elif code == "s":
                        self.assertEqual((field["kind"], field["element_size"]), ("i", 1))
                    else:
                        self.assertEqual(("u", struct.calcsize("=" + code)), (field["kind"], field["element_size"]))
                    self.assertEqual(field["size"], field["element_size"] * count)

    def test_every_record_is_covered_without_gaps(self):
        for record, (size, fields) in quvo.HEALTH_RECORDS.items():
            with self.subTest(record=record):
                position = 0
                for _, offset, code, count in fields:
                    self.assertEqual(offset, position)
                    if code in quvo.HEALTH_RECORDS:
                        element = quvo.HEALTH_RECORDS[code][0]
                    else:
                        element = struct.calcsize("=" + code)
                    position = offset + element * count
                self.assertEqual(position, size)

    def test_constants(self):
        for name, value in self.health["constants"].items():
            with self.subTest(constant=name):
                self.assertEqual(getattr(_health, name), value)

    def test_names_in_the_order_of_the_enums(self):
        names = self.health["functions"]["names"]
        self.assertEqual(list(quvo.PHASES) + ["unknown"], names["phases"])
        self.assertEqual(list(quvo.RESTART_REASONS) + ["unknown"], names["restart_reasons"])
        self.assertEqual(list(quvo.CLEAN_CAUSES) + ["unknown"], names["clean_causes"])
        self.assertEqual(list(quvo.FEEDS) + ["unknown"], names["feeds"])


if __name__ == "__main__":
    unittest.main()
