#!/usr/bin/env python3
"""Datasets for bench/suite: generate them, rewrite a few files, compare two trees.

    suite_data.py gen NAME ROOT [--quick]        many-small | large | mixed | huge-tree
    suite_data.py mutate ROOT CHANGED_LIST [--percent 1]
    suite_data.py verify SRC DST [--content all|sample] [--changed LIST]
    suite_data.py count ROOT                      prints: files dirs bytes
    suite_data.py version                         the generator's version, for stamps

Every dataset comes from a fixed seed, so two machines (or two runs) get the same names,
sizes, contents and modification times. `gen` prints "files=N dirs=N bytes=N" lines that
the driver keeps in the dataset's stamp file.
"""
import argparse
import math
import os
import random
import sys

SEED = 20261122
# Raise when a change makes `gen` write different data, so stamped datasets are rebuilt.
VERSION = 1
KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30

# Full size; --quick divides the counts (or, for `large`, the file size) by 50.
DATASETS = {
    "many-small": dict(files=200_000, quick_files=4_000),
    "large": dict(files=4, size=GIB, quick_size=20 * MIB),
    "mixed": dict(files=2_000, quick_files=40),
    "huge-tree": dict(files=1_000_000, quick_files=20_000),
}

# Folder and file names of an ordinary home or project tree; a few carry accents so
# the tools also meet non-ASCII (NFC) names.
FOLDER_WORDS = [
    "projects", "photos", "documents", "music", "src", "lib", "assets", "reports",
    "archive", "notes", "data", "config", "clients", "invoices", "drafts", "2019",
    "2020", "2021", "2022", "2023", "2024", "2025", "scans", "exports", "résumés",
    "shared", "misc", "vendor", "tests", "docs", "raw", "edited", "Überblick",
]
FILE_STEMS = [
    "report", "notes", "main", "index", "photo", "IMG", "scan", "invoice", "draft",
    "readme", "config", "module", "chapter", "track", "budget", "café-menu", "summary",
]
FILE_EXTS = ["txt", "md", "c", "h", "py", "json", "csv", "pdf", "jpg", "png", "odt", "xml"]

# Fixed modification times spread over five years in the past: realistic, and far
# enough back that no tool sees a file "from the future".
MTIME_BASE_NS = 1_577_836_800 * 10**9  # 2020-01-01
MTIME_SPAN_S = 5 * 365 * 86400


def leaf_folders(rng, n_files, per_folder=100, min_depth=3, max_depth=6):
    """Yields (relative folder, file count) for about per_folder files per folder, the
    folders 3-6 levels deep. Upper levels draw from a small vocabulary, so leaves share
    parents and form a tree rather than a list of unrelated paths."""
    branching = [6, 8, 10, 10, 12, 12]
    left, k = n_files, 0
    while left > 0:
        depth = rng.randint(min_depth, max_depth)
        parts = [rng.choice(FOLDER_WORDS[: branching[level]]) for level in range(depth - 1)]
        parts.append(f"{rng.choice(FOLDER_WORDS)}-{k:05d}")  # unique leaf: never another's parent
        count = min(left, rng.randint(per_folder * 6 // 10, per_folder * 14 // 10))
        yield os.path.join(*parts), count
        left -= count
        k += 1


def write_file(path, data, mtime_ns):
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    try:
        view = memoryview(data)
        while view:
            view = view[os.write(fd, view):]
        os.utime(fd, ns=(mtime_ns, mtime_ns))
    finally:
        os.close(fd)


def random_mtime(rng):
    return MTIME_BASE_NS + rng.randrange(MTIME_SPAN_S) * 10**9 + rng.randrange(10**9)


def gen_tree(rng, root, n_files, size_of):
    made = 0
    for folder, count in leaf_folders(rng, n_files):
        path = os.path.join(root, folder)
        os.makedirs(path, exist_ok=True)
        for _ in range(count):
            name = f"{rng.choice(FILE_STEMS)}-{made:07d}.{rng.choice(FILE_EXTS)}"
            write_file(os.path.join(path, name), rng.randbytes(size_of(rng)), random_mtime(rng))
            made += 1
            if made % 50_000 == 0:
                print(f"  {made:,} files", file=sys.stderr, flush=True)


def write_stream(rng, path, size, mtime_ns):
    """Incompressible bytes in 4 MiB pieces, so a 1 GiB file never sits in memory."""
    with open(path, "wb") as f:
        left = size
        while left:
            piece = min(left, 4 * MIB)
            f.write(rng.randbytes(piece))
            left -= piece
    os.utime(path, ns=(mtime_ns, mtime_ns))


def gen(name, root, quick):
    sizes = DATASETS[name]
    rng = random.Random(f"{SEED}-{name}")  # one stream per dataset: quick and full differ only in size
    os.makedirs(root, exist_ok=True)
    if name == "many-small":
        gen_tree(rng, root, sizes["quick_files" if quick else "files"], lambda r: r.randint(1 * KIB, 16 * KIB))
    elif name == "huge-tree":
        gen_tree(rng, root, sizes["quick_files" if quick else "files"], lambda r: r.randint(0, 256))
    elif name == "large":
        size = sizes["quick_size" if quick else "size"]
        os.makedirs(os.path.join(root, "video"), exist_ok=True)
        for i in range(sizes["files"]):
            write_stream(rng, os.path.join(root, "video", f"clip{i}.mov"), size, random_mtime(rng))
            print(f"  {i + 1} of {sizes['files']} large files", file=sys.stderr, flush=True)
    elif name == "mixed":
        # Log-uniform 100 KiB - 20 MiB: mostly a few MiB like camera JPEGs, with a tail of
        # small thumbnails and large raw files.
        lo, hi = math.log(100 * KIB), math.log(20 * MIB)
        n = sizes["quick_files" if quick else "files"]
        for i in range(n):
            year = 2015 + i * 10 // n
            folder = os.path.join(root, "Pictures", str(year), f"{year}-{1 + (i * 12 // n) % 12:02d}")
            os.makedirs(folder, exist_ok=True)
            ext = "CR2" if rng.random() < 0.15 else "jpg"
            write_stream(rng, os.path.join(folder, f"IMG_{i:05d}.{ext}"),
                         int(math.exp(rng.uniform(lo, hi))), random_mtime(rng))
    files, dirs, size = count(root)
    print(f"files={files}\ndirs={dirs}\nbytes={size}")


def count(root):
    files = dirs = size = 0
    for top, dirnames, filenames in os.walk(root):
        dirs += len(dirnames)
        files += len(filenames)
        size += sum(os.lstat(os.path.join(top, n)).st_size for n in filenames)
    return files, dirs, size


def all_files(root):
    out = []
    for top, dirnames, filenames in os.walk(root):
        dirnames.sort()
        out.extend(os.path.relpath(os.path.join(top, n), root) for n in sorted(filenames))
    return out


def mutate(root, changed_list, percent):
    """Rewrites percent % of the files with new random bytes: half keep their size (so
    only the time tells them apart), half get a new one. Each gets a modification time
    one day later than before, still in the past."""
    rng = random.Random(f"{SEED}-mutate")
    files = all_files(root)
    chosen = sorted(rng.sample(files, max(1, len(files) * percent // 100)))
    for rel in chosen:
        path = os.path.join(root, rel)
        st = os.lstat(path)
        size = st.st_size if rng.random() < 0.5 else rng.randint(1 * KIB, 16 * KIB)
        write_file(path, rng.randbytes(size), st.st_mtime_ns + 86400 * 10**9)
    with open(changed_list, "w") as f:
        f.writelines(rel + "\n" for rel in chosen)
    print(f"changed={len(chosen)}")


def listing(root):
    """Type, size and whole-second modification time of files; names of folders.
    Folder times are left out: not every tool sets them."""
    out = {}
    for top, dirnames, filenames in os.walk(root):
        for n in dirnames:
            out[os.path.relpath(os.path.join(top, n), root)] = ("d",)
        for n in filenames:
            st = os.lstat(os.path.join(top, n))
            out[os.path.relpath(os.path.join(top, n), root)] = ("f", st.st_size, st.st_mtime_ns // 10**9)
    return out


def same_bytes(a, b):
    with open(a, "rb") as fa, open(b, "rb") as fb:
        while True:
            x, y = fa.read(MIB), fb.read(MIB)
            if x != y:
                return False
            if not x:
                return True


def verify(src, dst, content, changed):
    a, b = listing(src), listing(dst)
    problems = []
    for rel in sorted(a.keys() | b.keys()):
        if rel not in b:
            problems.append(f"missing in destination: {rel}")
        elif rel not in a:
            problems.append(f"extra in destination: {rel}")
        elif a[rel] != b[rel]:
            problems.append(f"differs (type, size, mtime): {rel} {a[rel]} vs {b[rel]}")
    files = sorted(rel for rel, v in a.items() if v[0] == "f" and rel in b)
    if content == "all":
        to_read = files
    else:  # a fixed sample, plus every file the incremental scenario rewrote
        to_read = random.Random(SEED).sample(files, min(len(files), 300))
    if changed:
        with open(changed) as f:
            to_read = sorted(set(to_read) | {line.rstrip("\n") for line in f})
    for rel in to_read:
        if not same_bytes(os.path.join(src, rel), os.path.join(dst, rel)):
            problems.append(f"content differs: {rel}")
    for p in problems[:10]:
        print(p, file=sys.stderr)
    if len(problems) > 10:
        print(f"... and {len(problems) - 10} more", file=sys.stderr)
    print(f"compared {len(a)} items, read {len(to_read)} files: {len(problems)} problems", file=sys.stderr)
    return 1 if problems else 0


def main():
    p = argparse.ArgumentParser()
    sub = p.add_subparsers(dest="cmd", required=True)
    g = sub.add_parser("gen")
    g.add_argument("name", choices=DATASETS)
    g.add_argument("root")
    g.add_argument("--quick", action="store_true")
    m = sub.add_parser("mutate")
    m.add_argument("root")
    m.add_argument("changed_list")
    m.add_argument("--percent", type=int, default=1)
    v = sub.add_parser("verify")
    v.add_argument("src")
    v.add_argument("dst")
    v.add_argument("--content", choices=["all", "sample"], default="sample")
    v.add_argument("--changed")
    sub.add_parser("version")
    c = sub.add_parser("count")
    c.add_argument("root")
    args = p.parse_args()
    if args.cmd == "gen":
        gen(args.name, args.root, args.quick)
    elif args.cmd == "mutate":
        mutate(args.root, args.changed_list, args.percent)
    elif args.cmd == "verify":
        sys.exit(verify(args.src, args.dst, args.content, args.changed))
    elif args.cmd == "version":
        print(VERSION)
    elif args.cmd == "count":
        print(*count(args.root))


if __name__ == "__main__":
    main()
