"""Installers for end-to-end runs: MSI packages that wixl builds at test time, and the project's
test installer, which records its command line and exits with the code it is asked for.

Packages are built into a folder inside the prefix's drive C, so that Windows programs reach them by
a C: path; every package built is uninstalled again when the folder is removed.
"""
import pathlib
import shutil
import subprocess
import tempfile
import uuid

from wine import BIN

TEST_INSTALLER = BIN / "test_installer.exe"

# The main desktop agent's first upgrade code: the tool looks its installed version up by it.
MAIN_AGENT_UPGRADE_CODE = "{7C41E2A9-3B58-4F0D-9E62-1A8D5C37B04E}"
# Any other product.
OTHER_UPGRADE_CODE = "{5D2E8B41-9C07-4F3A-A6E1-0B7C3D9F2E58}"

_WXS = """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="*" Name="{name}" Language="1033" Version="{version}" Manufacturer="Quorvane Tests"
           UpgradeCode="{upgrade_code}">
    <Package InstallerVersion="200" Compressed="yes" InstallScope="perMachine"/>
    <Media Id="1" Cabinet="product.cab" EmbedCab="yes"/>
    <Directory Id="TARGETDIR" Name="SourceDir">
      <Directory Id="ProgramFiles64Folder">
        <Directory Id="INSTALLDIR" Name="{name}">
          <Component Id="Payload" Guid="{component}" Win64="yes">
            <File Id="Payload" Name="payload.txt" Source="{payload}" KeyPath="yes"/>
          </Component>
        </Directory>
      </Directory>
    </Directory>
    <Feature Id="Main" Level="1"><ComponentRef Id="Payload"/></Feature>
  </Product>
</Wix>
"""

UNINSTALL_KEY = r"HKEY_LOCAL_MACHINE\Software\Microsoft\Windows\CurrentVersion\Uninstall"


class Packages:
    """A folder of installers inside a Wine prefix."""

    def __init__(self, wine):
        self.wine = wine
        self.drive_c = wine.path / "drive_c"
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="e2e-packages-", dir=self.drive_c))
        self._built = []

    def windows_path(self, path):
        return "C:\\" + str(pathlib.Path(path).relative_to(self.drive_c)).replace("/", "\\")

    def msi(self, name, version, upgrade_code):
        """Builds an x64 MSI of one small file; the same name keeps its component across versions."""
        stem = f"{name.replace(' ', '-')}-{version}"
        source = self.folder / stem
        source.mkdir()
        (source / "payload.txt").write_text(f"{name} {version}\n")
        component = "{" + str(uuid.uuid5(uuid.NAMESPACE_URL, "e2e:" + name)).upper() + "}"
        (source / "product.wxs").write_text(_WXS.format(
            name=name, version=version, upgrade_code=upgrade_code, component=component,
            payload="payload.txt"))
        package = self.folder / f"{stem}.msi"
        subprocess.run(["wixl", "-a", "x64", "-o", str(package), str(source / "product.wxs")],
                       check=True, capture_output=True, timeout=120)
        self._built.append(package)
        return package

    def install(self, package):
        code, out, err = self.wine.run("msiexec", "/i", self.windows_path(package), "/qn",
                                       timeout=300)
        assert code == 0, (code, out, err)

    def installed_version(self, name):
        """DisplayVersion of the product registered for uninstall under that name, or None."""
        result = subprocess.run(["wine", "reg", "query", UNINSTALL_KEY, "/s"], env=self.wine.env,
                                stdin=subprocess.DEVNULL, capture_output=True, timeout=120)
        entry = {}
        for line in result.stdout.decode("utf-8", "replace").splitlines() + [""]:
            if not line.startswith(" "):  # a key line (or the end) closes the previous entry
                if entry.get("DisplayName") == name:
                    return entry.get("DisplayVersion")
                entry = {}
                continue
            parts = line.strip().split(None, 2)
            if len(parts) == 3:
                entry[parts[0]] = parts[2]
        return None

    def record(self):
        """A file the test installer appends its command lines to: (Unix path, Windows path)."""
        path = self.folder / "installer-record.txt"
        return path, self.windows_path(path)

    def remove(self):
        for package in self._built:
            # Not installed is fine (1605): only what a test installed has to go.
            self.wine.run("msiexec", "/x", self.windows_path(package), "/qn", timeout=300)
        shutil.rmtree(self.folder, ignore_errors=True)


def copy_test_installer(folder, name):
    target = pathlib.Path(folder) / name
    target.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(TEST_INSTALLER, target)
    return target


def recorded_lines(path):
    return path.read_text(encoding="utf-8").splitlines() if path.exists() else []
