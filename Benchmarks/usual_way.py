"""usual_way.py SHARDS GEOMETRY OUTPUT: what a conversion script does once the whole checkpoint is on the disk. Every
tensor, or every expert's part of it, is copied from the mapped shards to its place in the artifact's files. GEOMETRY
holds layout.json and the index region of model_weights.bin, which say what the places are (docs/format.md)."""

import json
import mmap
import shutil
import struct
import sys
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import BinaryIO

HEADER = struct.Struct("<QQQ")
# Name offset and length, dtype, reserved; then offset and size of weights; the shape; both of scales and of biases.
ENTRY = struct.Struct("<IHBBQQ4IQQQQ")
PARTS = {"": "weight", "_scales": "scales", "_biases": "biases"}
LAYER = "language_model.model.layers.{}.experts.switch_glu.{}_proj.{}"
TOKENIZER = ("config.json", "tokenizer.json", "tokenizer_config.json", "chat_template.jinja")


@dataclass(frozen=True)
class Entry:
    name: str
    pieces: list[tuple[str, int, int]]  # The source tensor, its offset in the file, its size.


def map_tensors(folder: Path) -> dict[str, memoryview]:
    tensors: dict[str, memoryview] = {}
    for shard in sorted(folder.glob("*.safetensors")):
        with shard.open("rb") as file:
            content = memoryview(mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ))
        (length,) = struct.unpack_from("<Q", content)
        header = json.loads(bytes(content[8 : 8 + length]))
        payload = content[8 + length :]
        for name, tensor in header.items():
            if name != "__metadata__":
                first, last = tensor["data_offsets"]
                tensors[name] = payload[first:last]
    return tensors


def read_entries(index: bytes) -> Iterator[Entry]:
    _, _, count = HEADER.unpack_from(index)
    for number in range(count):
        fields = ENTRY.unpack_from(index, HEADER.size + number * ENTRY.size)
        name_offset, name_length, _, _, weights, weights_size = fields[:6]
        scales, scales_size, biases, biases_size = fields[-4:]
        name = index[name_offset : name_offset + name_length].decode()
        base = name.removesuffix(".weight")
        pieces = [
            (name, weights, weights_size),
            (f"{base}.scales", scales, scales_size),
            (f"{base}.biases", biases, biases_size),
        ]
        yield Entry(name, [piece for piece in pieces if piece[2] > 0])


def write_resident(index: bytes, tensors: dict[str, memoryview], output: BinaryIO) -> None:
    output.write(index)
    for entry in read_entries(index):
        for name, offset, size in entry.pieces:
            output.seek(offset)
            output.write(tensors[name][:size])


def source_name(layer: int, sub_tensor: str) -> str:
    projection, mark, part = sub_tensor.partition("_")
    return LAYER.format(layer, projection, PARTS[mark + part])


def write_layer(layer: dict, experts: int, stride: int, tensors: dict[str, memoryview], output: BinaryIO) -> None:
    for position, expert in enumerate(layer["experts"]):
        for sub_tensor, place in expert["tensors"].items():
            source = tensors[source_name(layer["layer"], sub_tensor)]
            first = len(source) // experts * expert.get("expert", position)
            output.seek(expert["offset"] + place["offset"])
            output.write(source[first : first + place["size"]])
    output.truncate(experts * stride)


def main(shards: Path, geometry: Path, target: Path) -> None:
    tensors = map_tensors(shards)
    layout = json.loads((geometry / "layout.json").read_text())
    (target / "packed_experts").mkdir(parents=True)
    with (target / "model_weights.bin").open("wb") as output:
        write_resident((geometry / "index.bin").read_bytes(), tensors, output)
    for layer in layout["layers"]:
        with (target / "packed_experts" / layer["file"]).open("wb") as output:
            write_layer(layer, layout["expertsPerLayer"], layout["expertStride"], tensors, output)
    (target / "tokenizer").mkdir()
    for name in TOKENIZER:
        shutil.copyfile(shards / name, target / "tokenizer" / name)


if __name__ == "__main__":
    main(*map(Path, sys.argv[1:]))
