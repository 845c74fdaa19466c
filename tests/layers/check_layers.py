#!/usr/bin/env python3
"""Checks that no #include runs back up the house.

Every quoted include of the library, the tools, the Python module and the
Wireshark plugin is resolved the way the compiler finds it (the including
file's folder first, then the folders of the tree) and must land in a folder
its own folder may see. The build gives each target only its own include directories; this
check also catches what the build cannot: a relative path, or a header of
another layer that a target happens to see through a neighbour.

usage: check_layers.py SOURCE_DIR
"""
import os
import re
import sys

# The folders a folder's files may include from (its own always included).
# The ground: common/ and the public headers.
PUBLIC = ["interface/include/trdcomp", "codec2008/include/trdcomp", "generated/trdcomp"]
GROUND = ["common"] + PUBLIC
ALLOWED = {
    "interface/include/trdcomp": PUBLIC,
    "codec2008/include/trdcomp": PUBLIC,
    "common": GROUND,
    "fastcodec": GROUND,
    "codec2008": GROUND + ["codec2008/src"],
    "codec2008/src": GROUND + ["codec2008"],
    "interface/src": GROUND + ["generated/codecs", "generated/model"],
    "catalogue/gen": ["catalogue"],
    "catalogue/model": PUBLIC + ["generated/model"],
    "tools/trdcomp": PUBLIC + ["catalogue/model", "generated/model"],
    "python": PUBLIC + ["tools/trdcomp", "catalogue/model", "generated/model"],
    "wireshark": PUBLIC + ["tools/trdcomp", "catalogue/model", "generated/model"],
}
# The generated files, by where the generator writes them.
GENERATED = {
    "TrdCompRecords.h": "generated/trdcomp", "TrdCompMembers.inc": "generated/trdcomp",
    "TrdCompVersion.h": "generated/trdcomp", "RouteSlots.h": "generated/codecs",
    "CatalogueTables.h": "generated/model", "RecordFields.h": "generated/model",
    "CatalogueFingerprint.h": "generated/model", "CatalogueKinds.h": "generated/model",
}
# Where a bare name is looked for, after the including file's own folder.
ROOTS = ["common", "fastcodec", "codec2008", "interface/src", "interface/include", "codec2008/include",
         "catalogue", "tools/trdcomp", "python", "wireshark"]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def resolve(src, folder, name):
    """The folder a quoted include lands in, or None."""
    base = os.path.basename(name)
    if base in GENERATED and not os.path.exists(os.path.join(src, folder, name)):
        return GENERATED[base]
    for root in [folder] + ROOTS:
        path = os.path.normpath(os.path.join(src, root, name))
        if os.path.isfile(path):
            return os.path.relpath(os.path.dirname(path), src)
    return None


def main():
    src = sys.argv[1]
    faults = []
    checked = 0
    for folder, allowed in ALLOWED.items():
        top = os.path.join(src, folder)
        for entry in sorted(os.listdir(top)):
            if not entry.endswith((".h", ".hpp", ".c", ".cpp", ".inc")):
                continue
            with open(os.path.join(top, entry), encoding="utf-8") as f:
                text = f.read()
            for name in INCLUDE.findall(text):
                checked += 1
                where = f"{folder}/{entry}: \"{name}\""
                if ".." in name.split("/"):
                    faults.append(f"{where} climbs out of its folder")
                    continue
                lands = resolve(src, folder, name)
                if lands is None:
                    faults.append(f"{where} is found nowhere in the tree")
                elif lands != folder and lands not in allowed:
                    faults.append(f"{where} reaches {lands}/, which {folder}/ may not see")
    for fault in faults:
        print(fault)
    print(f"{checked} includes checked, {len(faults)} running back up")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
