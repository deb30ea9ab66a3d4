#!/usr/bin/env python3
"""Many small files in nested folders, the same every time for one seed.

Used by scripts/compare-restic.sh --files N (its scale mode); one process
writes every file.

  small-files.py generate DIR --files N [--seed S]
      N files of 0 to 16 KiB (uniform sizes) in about N/66.7 folders, nested
      two or three levels deep: 1 in 100 folders at the top, the others
      alternately one level under a top folder and one level under such a
      second-level folder; each file goes to a folder picked at random. Two
      files in three are random bytes (incompressible), the others text cut
      from a pool of common words (compresses to about a third). Prints the
      number of files, folders and bytes.
  small-files.py edit DIR SAVE [--count 100] [--seed S]
      rewrites COUNT non-empty files in place (sizes kept, every file's new
      bytes differ from its old ones), spread evenly over the sorted list of
      files; saves their old bytes and modification times in SAVE first.
      Prints the number of files and of bytes rewritten.
  small-files.py revert DIR SAVE
      puts back what `edit` saved (bytes and modification times) and removes
      SAVE; does nothing when SAVE does not exist.
"""

import argparse
import json
import os
import random
import shutil
import sys

MAX_SIZE = 16 * 1024
FILES_PER_FOLDER = 66.7

WORDS = (
    "the of and to in is that for it as was with be by on not he this are or his from at which but "
    "have an they you were her she there been one all we their has would when if so no will more can its "
    "out up who them some could him into than then only other time about these two may first any like our "
    "over such me even most made after also did many before must through back years where much your way "
    "well down should because each just those people how too little state good very make world still own "
    "see men work long here get both between life being under never day same another know while last might "
    "us great old year off come since against go came right used take three states himself few house use "
    "during without again place around however home small found thought went say part once general high "
    "upon school every does got left number course until always away something fact though water less "
    "public put think almost hand enough far took head yet system better set told nothing night end why "
    "called find look asked later knew point next program city business give group toward young days let "
    "room side social given present several order possible rather second face among form important often"
).split()


def text_pool(rng, size):
    """About SIZE bytes of lines of words, skewed towards the first ones."""
    weights = [1.0 / (i + 8) for i in range(len(WORDS))]
    out, length = [], 0
    while length < size:
        line = " ".join(rng.choices(WORDS, weights, k=rng.randint(8, 14))) + "\n"
        out.append(line)
        length += len(line)
    return "".join(out).encode()


def folder_paths(rng, count):
    top = max(1, round(count / 100))
    paths = [f"d{i:03d}" for i in range(top)]
    second, third = [], []
    for j in range(count - top):
        if j % 2 == 0 or not second:
            parent = rng.choice(paths[:top])
            path = f"{parent}/s{len(second):04d}"
            second.append(path)
        else:
            parent = rng.choice(second)
            path = f"{parent}/t{len(third):04d}"
            third.append(path)
        paths.append(path)
    return paths


def generate(args):
    rng = random.Random(args.seed)
    folders = folder_paths(rng, max(1, round(args.files / FILES_PER_FOLDER)))
    for folder in folders:
        os.makedirs(os.path.join(args.dir, folder), exist_ok=True)
    pool = text_pool(rng, 4 << 20)
    total = 0
    for i in range(args.files):
        size = rng.randint(0, MAX_SIZE)
        folder = folders[rng.randrange(len(folders))]
        if i % 3 == 2:
            start = rng.randrange(len(pool) - MAX_SIZE)
            data, name = pool[start:start + size], f"f{i:07d}.txt"
        else:
            data, name = rng.randbytes(size), f"f{i:07d}.bin"
        with open(os.path.join(args.dir, folder, name), "wb") as f:
            f.write(data)
        total += size
    print(f"{args.files} files, {len(folders)} folders, {total} bytes")


def all_files(root):
    found = []
    for top, dirs, files in os.walk(root):
        dirs.sort()
        for name in files:
            found.append(os.path.relpath(os.path.join(top, name), root))
    return sorted(found)


def edit(args):
    revert(args)
    candidates = [p for p in all_files(args.dir) if os.path.getsize(os.path.join(args.dir, p)) > 0]
    if len(candidates) < args.count:
        sys.exit(f"small-files: only {len(candidates)} non-empty files, {args.count} to edit")
    chosen = [candidates[k * len(candidates) // args.count] for k in range(args.count)]
    rng = random.Random(args.seed + 1_000_003)
    os.makedirs(args.save)
    saved = []
    for k, path in enumerate(chosen):
        full = os.path.join(args.dir, path)
        st = os.stat(full)
        shutil.copyfile(full, os.path.join(args.save, str(k)))
        saved.append({"path": path, "atime_ns": st.st_atime_ns, "mtime_ns": st.st_mtime_ns})
    with open(os.path.join(args.save, "saved.json"), "w") as f:
        json.dump(saved, f)
    for k, path in enumerate(chosen):
        full = os.path.join(args.dir, path)
        with open(full, "r+b") as f:
            old = f.read()
            new = bytearray(rng.randbytes(len(old)))
            if new == old:
                new[0] ^= 0xFF
            f.seek(0)
            f.write(new)
        if os.path.getsize(full) != len(old):
            sys.exit(f"small-files: the edit changed the size of {path}")
    print(f"{len(chosen)} files rewritten, {sum(os.path.getsize(os.path.join(args.dir, p)) for p in chosen)} bytes")


def revert(args):
    listing = os.path.join(args.save, "saved.json")
    if not os.path.exists(listing):
        shutil.rmtree(args.save, ignore_errors=True)
        return
    with open(listing) as f:
        saved = json.load(f)
    for k, entry in enumerate(saved):
        full = os.path.join(args.dir, entry["path"])
        with open(os.path.join(args.save, str(k)), "rb") as f:
            data = f.read()
        with open(full, "r+b") as f:
            f.write(data)
        os.utime(full, ns=(entry["atime_ns"], entry["mtime_ns"]))
    shutil.rmtree(args.save)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", required=True)
    g = commands.add_parser("generate")
    g.add_argument("dir")
    g.add_argument("--files", type=int, required=True)
    g.add_argument("--seed", type=int, default=1)
    e = commands.add_parser("edit")
    e.add_argument("dir")
    e.add_argument("save")
    e.add_argument("--count", type=int, default=100)
    e.add_argument("--seed", type=int, default=1)
    r = commands.add_parser("revert")
    r.add_argument("dir")
    r.add_argument("save")
    args = parser.parse_args()
    {"generate": generate, "edit": edit, "revert": revert}[args.command](args)


if __name__ == "__main__":
    main()
