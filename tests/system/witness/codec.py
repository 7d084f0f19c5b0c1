"""Records as the standard's own payload, made and read with protoc and the protobuf runtime of the system.

A field is (kind, value); kinds are the Kel types by name. Nothing here comes from the code under test.
"""

import importlib.util
import os
import struct
import subprocess
import sys
import tempfile

# kind -> (datatype of the standard, Kel type id)
KINDS = {
    "boolean": (11, 1), "byte": (1, 2), "short": (2, 3), "int": (3, 4), "long": (4, 5), "float": (9, 6),
    "double": (10, 7), "string": (12, 8), "bytes": (17, 8),
    "boolean[]": (32, 10), "byte[]": (22, 20), "short[]": (23, 30), "int[]": (24, 40), "long[]": (25, 50),
    "float[]": (30, 60), "double[]": (31, 70), "string[]": (33, 80),
}
PACKED = {"byte[]": "b", "short[]": "h", "int[]": "i", "long[]": "q", "float[]": "f", "double[]": "d"}
BY_DATATYPE = {datatype: kind for kind, (datatype, _) in KINDS.items()}


def _load():
    here = os.path.dirname(os.path.abspath(__file__))
    with tempfile.TemporaryDirectory(prefix="kelgw-witness.") as folder:
        subprocess.run(["protoc", f"--proto_path={here}", f"--python_out={folder}", "sparkplug_witness.proto"], check=True)
        spec = importlib.util.spec_from_file_location("sparkplug_witness_pb2", os.path.join(folder, "sparkplug_witness_pb2.py"))
        module = importlib.util.module_from_spec(spec)
        sys.modules[spec.name] = module
        spec.loader.exec_module(module)
        return module


pb = _load()


def pack_array(kind, values):
    if kind == "boolean[]":
        bits = bytearray((len(values) + 7) // 8)
        for index, value in enumerate(values):
            if value:
                bits[index // 8] |= 0x80 >> (index % 8)
        return struct.pack("<I", len(values)) + bytes(bits)
    if kind == "string[]":
        return b"".join((text if isinstance(text, bytes) else text.encode()) + b"\0" for text in values)
    if kind == "byte[]":
        return bytes(value & 0xFF for value in values)
    return struct.pack(f"<{len(values)}{PACKED[kind]}", *values)


def unpack_array(kind, data):
    if kind == "boolean[]":
        (count,) = struct.unpack_from("<I", data)
        bits = data[4:]
        assert len(bits) == (count + 7) // 8, (count, data)
        return [bool(bits[index // 8] & (0x80 >> (index % 8))) for index in range(count)]
    if kind == "string[]":
        assert data == b"" or data.endswith(b"\0"), data
        return [text.decode() for text in data.split(b"\0")[:-1]]
    if kind == "byte[]":
        return list(data)
    size = struct.calcsize("<" + PACKED[kind])
    return list(struct.unpack(f"<{len(data) // size}{PACKED[kind]}", data))


def set_metric(metric, name, kind, value):
    metric.name = name
    metric.datatype = KINDS[kind][0]
    if kind == "boolean":
        metric.boolean_value = value
    elif kind in ("byte", "short", "int"):
        metric.int_value = value & 0xFFFFFFFF
    elif kind == "long":
        metric.long_value = value & 0xFFFFFFFFFFFFFFFF
    elif kind == "float":
        metric.float_value = value
    elif kind == "double":
        metric.double_value = value
    elif kind == "string":
        metric.string_value = value
    elif kind == "bytes":
        metric.bytes_value = value
    else:
        metric.bytes_value = pack_array(kind, value)


def encode(fields, quality=None, time_ns=None, timestamp_ms=None, publisher=None, sequence=None, reason=None):
    """The payload of one record. `fields` maps a tag to (kind, value); the tag "" is the unnamed value."""
    payload = pb.Payload()
    if timestamp_ms is not None:
        payload.timestamp = timestamp_ms
    for tag, (kind, value) in fields.items():
        name = "_value" if tag == "" else "_" + tag if tag.startswith("_") else tag
        set_metric(payload.metrics.add(), name, kind, value)
    reserved = {"_quality": ("int", quality), "_time": ("long", time_ns), "_publisher": ("string", publisher),
                "_seq": ("long", sequence), "_reason": ("string", reason)}
    for name, (kind, value) in reserved.items():
        if value is not None:
            set_metric(payload.metrics.add(), name, kind, value)
    return payload.SerializeToString()


def signed(value, bits):
    value &= (1 << bits) - 1
    return value - (1 << bits) if value >> (bits - 1) else value


def metric_value(metric):
    kind = BY_DATATYPE[metric.datatype]
    if kind == "boolean":
        return kind, metric.boolean_value
    if kind == "byte":
        return kind, metric.int_value & 0xFF
    if kind == "short":
        return kind, signed(metric.int_value, 16)
    if kind == "int":
        return kind, signed(metric.int_value, 32)
    if kind == "long":
        return kind, signed(metric.long_value, 64)
    if kind == "float":
        return kind, metric.float_value
    if kind == "double":
        return kind, metric.double_value
    if kind == "string":
        return kind, metric.string_value
    if kind == "bytes":
        return kind, metric.bytes_value
    return kind, unpack_array(kind, metric.bytes_value)


class Record:
    """What a payload says: fields by tag as (kind, value), and the reserved metrics."""

    def __init__(self, data):
        payload = pb.Payload()
        payload.ParseFromString(data)
        self.fields, self.reserved = {}, {}
        self.timestamp_ms = payload.timestamp if payload.HasField("timestamp") else None
        for metric in payload.metrics:
            kind, value = metric_value(metric)
            if metric.name == "_value":
                self.fields[""] = (kind, value)
            elif metric.name.startswith("__"):
                self.fields[metric.name[1:]] = (kind, value)
            elif metric.name.startswith("_"):
                self.reserved[metric.name] = value
            else:
                self.fields[metric.name] = (kind, value)
        self.quality = self.reserved.get("_quality", 1)
        self.time_ns = self.reserved.get("_time")
        self.reason = self.reserved.get("_reason")
        self.sequence = self.reserved.get("_seq")
        self.publisher = self.reserved.get("_publisher")
