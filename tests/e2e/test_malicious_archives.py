"""Hostile tar and tar.gz packages: each is downloaded and verified like any other, then refused
whole by the extraction. Nothing of it lands in the destination, and a file beside the destination,
where escaping entries aim, keeps every byte.
"""
import gzip
import tarfile

import pytest

from kesclient_support import *  # noqa: F401,F403 - fixtures, the driver and its result codes
from servers import HttpsServer, Resource

GOOD = ("pkg/setup.exe", b"fine")  # first: an extractor that stopped at the bad entry would have written it
KEPT = b"outside the destination"


def special(name, kind, link=""):
    info = tarfile.TarInfo(name)
    info.type, info.linkname = kind, link
    return info


def pax_path(name, path):
    """An entry whose ustar name looks harmless while its extended header names another path."""
    info = tarfile.TarInfo(name)
    info.pax_headers = {"path": path}
    return info


def plain(*entries, format=tarfile.USTAR_FORMAT):
    return tar_archive([GOOD, *entries], compress=False, format=format)


def corrupt_second_header():
    data = bytearray(plain(("pkg/second.txt", b"x")))
    data[1024] ^= 1  # the second header starts after the first's header and data blocks
    return bytes(data)


def bomb():
    return gzip.compress(plain(("pkg/zeros.bin", bytes(64 << 20))), 9)


# Escaping entries all aim at C:\kes\evil.txt; the destination is C:\kes\download.
NAMES = {
    "dotdot": ("../evil.txt", '".." component'),
    "dotdot-backslash": ("..\\evil.txt", '".." component'),
    "deep-dotdot": ("pkg/../../evil.txt", '".." component'),
    "deep-dotdot-backslash": ("pkg\\..\\..\\evil.txt", '".." component'),
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
    "folder-trailing-dot": ("pkg./evil.txt", "ends in a dot"),
    "stream": ("pkg/setup.exe:hidden", "does not allow"),
}

HOSTILE = {
    **{case: (lambda name=name: plain((name, KEPT + b"!")), why) for case, (name, why) in NAMES.items()},
    "pax-path": (lambda: plain(pax_path("pkg/fine.txt", "../evil.txt"), format=tarfile.PAX_FORMAT),
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
    "gzip-bomb": (bomb, "compression ratio"),
    "gzip-trailing-garbage": (lambda: gzip.compress(plain()) + b"garbage", "after the end of the compressed stream"),
    "gzip-trailing-zeros": (lambda: gzip.compress(plain()) + bytes(512), "after the end of the compressed stream"),
    "gzip-truncated": (lambda: gzip.compress(plain())[:-4], "truncated"),
}


@pytest.fixture
def outside(folder):
    """A file beside the destination, in the place escaping entries aim at."""
    path = folder.parent / "evil.txt"
    path.parent.mkdir(parents=True)
    path.write_bytes(KEPT)
    return path


def fetch(wine, certs, servers, archive):
    server = servers(HttpsServer(certs.localhost))
    url = server.add("/package.tar", Resource(archive))
    return download(wine, [url], archive, certs=certs, payload="tar")


@pytest.mark.parametrize("case", HOSTILE)
def test_hostile_package_is_refused_and_touches_nothing(wine, certs, folder, servers, outside, case):
    build, why = HOSTILE[case]
    run = fetch(wine, certs, servers, build())
    assert run.code == VERIFY_FAILED, run.out
    assert any("package refused" in line and why in line for line in run.lines("error")), run.out
    assert leftovers(folder) == []
    assert outside.read_bytes() == KEPT
    assert sorted(p.name for p in folder.parent.iterdir() if p != folder) == ["evil.txt"]


@pytest.mark.parametrize("archive", [
    lambda tar: gzip.compress(tar[:1100]) + gzip.compress(tar[1100:]),  # split inside a header
    lambda tar: tar + b"garbage",  # after the end-of-archive marker, nothing is read
], ids=["several-gzip-members", "tar-trailing-garbage"])
def test_framing_that_ends_well_is_extracted(wine, certs, folder, servers, archive):
    tar = plain(("pkg/readme.txt", b"read me"))
    run = fetch(wine, certs, servers, archive(tar))
    assert run.code == SUCCESS, run.out
    assert (folder / "pkg" / "setup.exe").read_bytes() == GOOD[1]
    assert (folder / "pkg" / "readme.txt").read_bytes() == b"read me"
    assert leftovers(folder) == ["pkg"]
