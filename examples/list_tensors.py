#!/usr/bin/env python3
"""list_tensors.py ARTIFACT: every tensor of an artifact, resident and expert, in the order in which they are recorded.

One line each, fields separated by tabs: name, dtype, shape, bits ("-" if not packed), file, offset in the file, bytes.
Written from docs/format.md alone, with nothing but Python 3.9."""

import json
import math
import os
import struct
import sys
from pathlib import Path

PAGE = 16384
HEADER = struct.Struct("<QQQ")
# Name offset and length, dtype, reserved; offset and size of the weights; the shape; offset and size of scales, biases.
ENTRY = struct.Struct("<IHBBQQ4IQQQQ")
DTYPES = ["U32", "BF16", "FP16", "FP32"]


def require(holds, reason):
    if not holds:
        raise ValueError(reason)


def open_inside(root, path):
    """A regular file of the artifact, links not followed."""
    names = path.split("/")
    require(all(name not in ("", ".", "..") and "\0" not in name for name in names), f"unsafe path {path!r}")
    for depth in range(1, len(names) + 1):
        require(not root.joinpath(*names[:depth]).is_symlink(), f"{path}: a symbolic link")
    require(root.joinpath(path).is_file(), f"{path}: not a regular file")
    return root.joinpath(path).open("rb")


def read_json(root, path, cap):
    with open_inside(root, path) as file:
        content = file.read(cap + 1)
    require(len(content) <= cap, f"{path}: larger than {cap} bytes")
    return json.loads(content.decode())


def checked_size(root, path, files):
    """The size of a file, once the manifest and the file agree about it."""
    with open_inside(root, path) as file:
        size = os.fstat(file.fileno()).st_size
    require(path in files and files[path]["size"] == size, f"{path}: not the size that the manifest says")
    return size


def resident_tensors(root, files):
    path = "model_weights.bin"
    file_size = checked_size(root, path, files)
    with open_inside(root, path) as file:
        head = file.read(HEADER.size)
        require(len(head) == HEADER.size, f"{path}: too short")
        index_size, resident_size, count = HEADER.unpack(head)
        require(0 < index_size <= 16777216 and index_size % PAGE == 0, f"{path}: bad index size")
        require(index_size + resident_size == file_size, f"{path}: not the size that its index says")
        index = head + file.read(index_size - HEADER.size)
    table_end = HEADER.size + ENTRY.size * count
    require(table_end <= index_size, f"{path}: entries beyond the index")

    def part(name, dtype, shape, bits, offset, size):
        require(index_size <= offset and offset + size <= file_size, f"{name}: outside the payload")
        return name, dtype, shape, bits, path, offset, size

    for start in range(HEADER.size, table_end, ENTRY.size):
        name_at, length, dtype, _, offset, size, *shape, scales, scales_size, biases, biases_size = ENTRY.unpack_from(
            index, start
        )
        require(table_end <= name_at and 0 < length <= index_size - name_at, f"{path}: a name outside the index")
        require(dtype < len(DTYPES) and shape[0] > 0, f"{path}: bad dtype or shape")
        name = index[name_at : name_at + length].decode()
        shape = [dimension for dimension in shape if dimension]
        values = math.prod(shape)
        packed = DTYPES[dtype] == "U32"
        require(not packed or 8 * size % values == 0, f"{name}: size and shape differ")
        yield part(name, DTYPES[dtype], shape, 8 * size // values if packed else "-", offset, size)
        for kind, at, bytes_of_kind in (("scales", scales, scales_size), ("biases", biases, biases_size)):
            if bytes_of_kind:
                groups = bytes_of_kind // 2 // math.prod(shape[:-1])
                yield part(f"{name}.{kind}", "BF16", shape[:-1] + [groups], "-", at, bytes_of_kind)


def expert_tensors(root, manifest):
    layout = read_json(root, "packed_experts/layout.json", 16 << 20)
    stride = manifest["expertStride"]
    for key in ("expertStride", "expertsPerLayer", "numLayers"):
        require(layout[key] == manifest[key], f"{key}: layout and manifest differ")
    for layer in layout["layers"]:
        path = f"packed_experts/{layer['file']}"
        file_size = checked_size(root, path, manifest["files"])
        for position, expert in enumerate(layer["experts"]):
            number = position if expert.get("expert") is None else expert["expert"]
            require(0 <= expert["offset"] <= file_size - stride, f"{path}: expert {number} beyond the end")
            for key, tensor in expert["tensors"].items():
                name = f"layers.{layer['layer']}.experts.{number}.{key}"
                require(0 <= tensor["offset"] <= stride - tensor["size"], f"{name}: outside its expert")
                bits = "-" if tensor.get("bits") is None else tensor["bits"]
                offset = expert["offset"] + tensor["offset"]
                yield name, tensor["dtype"], tensor["shape"], bits, path, offset, tensor["size"]


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    root = Path(sys.argv[1])
    try:
        manifest = read_json(root, "manifest.json", 4 << 20)
        require(manifest["magic"] == "MORLEN" and manifest["versionMajor"] == 1, "not a Morlen V1 artifact")
        tensors = [*resident_tensors(root, manifest["files"]), *expert_tensors(root, manifest)]
        for name, dtype, shape, *rest in tensors:
            require(name.isprintable(), f"a tensor's name is not printable: {name!r}")
            print(name, dtype, "x".join(map(str, shape)), *rest, sep="\t")
        sys.stdout.flush()
    except BrokenPipeError:
        # The reader has seen enough. What is still buffered must not fail once more at the end.
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)
    except (OSError, ValueError, KeyError, TypeError, RecursionError) as error:
        sys.exit(f"list_tensors.py: {error}")


if __name__ == "__main__":
    main()
