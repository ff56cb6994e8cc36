"""Hostile tar and tar.gz packages against the real file system: each is downloaded and verified
like any other, then refused whole by the extraction. Nothing of it lands in the destination, and a
file beside the destination, where escaping entries aim, keeps every byte.
"""
import gzip
import io
import tarfile

import pytest

from harness import SUCCESS, VERIFY_FAILED, Case
from servers import Resource

GOOD = ("pkg/setup.exe", b"fine")  # first: an extractor that stopped at the bad entry would have written it
KEPT = b"outside the destination"


def special(name, kind=tarfile.REGTYPE, link="", **pax):
    info = tarfile.TarInfo(name)
    info.type, info.linkname, info.pax_headers = kind, link, pax
    return info


def plain(*entries, format=tarfile.USTAR_FORMAT):
    """A tar of GOOD and the entries: (name, content) pairs, or TarInfo entries without data."""
    data = io.BytesIO()
    with tarfile.open(fileobj=data, mode="w", format=format) as archive:
        for entry in (GOOD, *entries):
            info = entry if isinstance(entry, tarfile.TarInfo) else special(entry[0])
            info.size = 0 if info is entry else len(entry[1])
            archive.addfile(info, None if info is entry else io.BytesIO(entry[1]))
    return data.getvalue()


def corrupt_second_header():
    data = bytearray(plain(("pkg/second.txt", b"x")))
    data[1024] ^= 1  # the second header starts after the first's header and data blocks
    return bytes(data)


# Escaping entries all aim at C:\kes\evil.txt; the destination is C:\kes\download.
NAMES = {
    "dotdot": ("../evil.txt", '".." component'),
    "dotdot-backslash": ("..\\evil.txt", '".." component'),
    "dotdot-mixed": ("pkg/..\\../evil.txt", '".." component'),
    "absolute": ("/kes/evil.txt", "absolute path"),
    "absolute-backslash": ("\\kes\\evil.txt", "absolute path"),
    "drive": ("C:/kes/evil.txt", "drive path"),
    "drive-backslash": ("C:\\kes\\evil.txt", "drive path"),
    "drive-relative": ("C:evil.txt", "drive-relative path"),
    "drive-relative-dotdot": ("C:..\\evil.txt", "drive-relative path"),
    "unc": ("\\\\localhost\\C$\\kes\\evil.txt", "UNC path"),
    "unc-slash": ("//localhost/C$/kes/evil.txt", "UNC path"),
    "device": ("\\\\?\\C:\\kes\\evil.txt", "device path"),
    "device-dot": ("\\\\.\\C:\\kes\\evil.txt", "device path"),
    "device-slash": ("//?/C:/kes/evil.txt", "device path"),
    "con-dot": ("CON.", "ends in a dot"),
    "nul-blank": ("nul .txt", "reserved device name"),
    "aux": ("pkg/aux.txt", "reserved device name"),
    "com1": ("pkg/COM1", "reserved device name"),
    "lpt-superscript": ("pkg/lpt\u00b9.log", "reserved device name"),
    "conout": ("pkg/CONOUT$", "reserved device name"),
    "trailing-dot": ("pkg/evil.txt.", "ends in a dot"),
    "trailing-blank": ("pkg/evil.txt ", "ends in a dot or a blank"),
    "stream": ("pkg/setup.exe:hidden", "does not allow"),
}

HOSTILE = {
    **{case: (lambda name=name: plain((name, KEPT + b"!")), why) for case, (name, why) in NAMES.items()},
    # The ustar name looks harmless while the extended header names another path.
    "pax-path": (lambda: plain(special("pkg/fine.txt", path="../evil.txt"), format=tarfile.PAX_FORMAT),
                 '".." component'),
    "gnu-long-name": (lambda: plain(("pkg/" + "a" * 120 + "/../../../evil.txt", b"x"), format=tarfile.GNU_FORMAT),
                      '".." component'),
    "case": (lambda: plain(("PKG/SETUP.EXE", b"other")), "name used twice"),
    "case-latin1": (lambda: plain(("pkg/\u00c4.txt", b"a"), ("pkg/\u00e4.txt", b"b"), format=tarfile.PAX_FORMAT),
                    "name used twice"),
    "below-a-file": (lambda: plain(("pkg/setup.exe/evil.txt", b"x")), "entry below a file"),
    "symlink": (lambda: plain(special("pkg/link", tarfile.SYMTYPE, "../evil.txt")), "symbolic link"),
    "symlink-then-file": (lambda: plain(special("pkg/out", tarfile.SYMTYPE, ".."), ("pkg/out/evil.txt", b"x")),
                          "symbolic link"),
    "hardlink": (lambda: plain(special("pkg/hard", tarfile.LNKTYPE, "../evil.txt")), "hard link"),
    "hardlink-then-file": (lambda: plain(special("pkg/hard", tarfile.LNKTYPE, "/kes/evil.txt"), ("pkg/hard", b"x")),
                           "hard link"),
    "fifo": (lambda: plain(special("pkg/fifo", tarfile.FIFOTYPE)), "FIFO"),
    "char-device": (lambda: plain(special("pkg/tty", tarfile.CHRTYPE)), "character device"),
    "block-device": (lambda: plain(special("pkg/disk", tarfile.BLKTYPE)), "block device"),
    "bad-checksum": (corrupt_second_header, "bad header checksum"),
    "no-end-marker": (lambda: plain(("pkg/second.txt", b"x"))[:2048], "end-of-archive marker"),
    "one-zero-block": (lambda: plain(("pkg/second.txt", b"x"))[:2560], "end-of-archive marker"),
    "gzip-bomb": (lambda: gzip.compress(plain(("pkg/zeros.bin", bytes(64 << 20))), 9), "compression ratio"),
    "gzip-trailing-garbage": (lambda: gzip.compress(plain()) + b"garbage", "after the end of the compressed stream"),
    "gzip-truncated": (lambda: gzip.compress(plain())[:-4], "truncated"),
}


def package(archive, code, **options):
    """The archive served as a tar package, with a file outside the destination."""
    def setup(c):
        (c.destination().parent / "evil.txt").parent.mkdir(parents=True)
        (c.destination().parent / "evil.txt").write_bytes(KEPT)
        data = archive()
        return dict(urls=[Resource(data)], body=data, payload="tar")
    return Case(setup, code, **options)


def untouched(c, run):
    beside = c.destination().parent
    return (beside / "evil.txt").read_bytes() == KEPT and [p.name for p in beside.iterdir()
                                                           if p.name != "download"] == ["evil.txt"]


@pytest.mark.parametrize("case", [pytest.param(package(build, VERIFY_FAILED, says="package refused", check=lambda c, r,
                                                       why=why: why in r.out and untouched(c, r)), id=case)
                                  for case, (build, why) in HOSTILE.items()])
def test_hostile_package_is_refused_and_touches_nothing(downloads, case):
    downloads.check(case)


TAR = plain(("pkg/readme.txt", b"read me"))


@pytest.mark.parametrize("archive", [
    lambda: gzip.compress(TAR[:1100]) + gzip.compress(TAR[1100:]),  # split inside a header
    lambda: TAR + b"garbage",  # after the end-of-archive marker, nothing is read
], ids=["several-gzip-members", "tar-trailing-garbage"])
def test_framing_that_ends_well_is_extracted(downloads, archive):
    pkg = downloads.destination() / "pkg"
    downloads.check(package(archive, SUCCESS, kept=["pkg"], check=lambda c, run: (
        (pkg / "setup.exe").read_bytes(), (pkg / "readme.txt").read_bytes()) == (GOOD[1], b"read me")))
