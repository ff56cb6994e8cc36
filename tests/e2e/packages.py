"""Installers for end-to-end runs and the demo: x64 MSI packages that wixl builds at run time (one
file each; a later version of the same upgrade code replaces an earlier one, as agent releases
do), and the project's test installer, which records its command line and exits with the code it
is asked for (TEST_INSTALLER_RECORD, TEST_INSTALLER_EXIT_CODE).

Packages are built into a folder inside the prefix's drive C, so that Windows programs reach them
by a C: path.
"""
import pathlib
import shutil
import subprocess
import tempfile
import uuid

from harness import BIN

TEST_INSTALLER = BIN / "test_installer.exe"
MAIN_AGENT_UPGRADE_CODE = "{7C41E2A9-3B58-4F0D-9E62-1A8D5C37B04E}"  # the tool finds the main agent by it
UNINSTALL_KEY = r"HKEY_LOCAL_MACHINE\Software\Microsoft\Windows\CurrentVersion\Uninstall"

_WXS = """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
  <Product Id="*" Name="{name}" Language="1033" Version="{version}" Manufacturer="Quorvane Tests"
           UpgradeCode="{upgrade_code}">
    <Package InstallerVersion="200" Compressed="yes" InstallScope="perMachine"/>
    <MajorUpgrade DowngradeErrorMessage="A newer version is installed."/>
    <Media Id="1" Cabinet="product.cab" EmbedCab="yes"/>
    <Directory Id="TARGETDIR" Name="SourceDir">
      <Directory Id="ProgramFiles64Folder">
        <Directory Id="INSTALLDIR" Name="{name}">
          <Component Id="Payload" Guid="{component}" Win64="yes">
            <File Id="Payload" Name="{file}" Source="{file}" KeyPath="yes"/>
          </Component>
        </Directory>
      </Directory>
    </Directory>
    <Feature Id="Main" Level="1"><ComponentRef Id="Payload"/></Feature>
  </Product>
</Wix>
"""


class Packages:
    """A folder of installers inside a Wine prefix; what it built is uninstalled by remove()."""

    def __init__(self, wine):
        self.wine = wine
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="e2e-packages-", dir=wine.path / "drive_c"))
        self._built = []

    def msi(self, name, version, upgrade_code, payload=None, file="agent.txt"):
        """An MSI installing one file into Program Files\\<name>: payload (bytes), or else the name
        and version. The same name keeps its component across versions."""
        source = self.folder / f"{name.replace(' ', '-')}-{version}"
        source.mkdir()
        (source / file).write_bytes(payload if payload is not None else f"{name} {version}\n".encode())
        component = "{" + str(uuid.uuid5(uuid.NAMESPACE_URL, "e2e:" + name)).upper() + "}"
        (source / "product.wxs").write_text(_WXS.format(name=name, version=version, upgrade_code=upgrade_code,
                                                        component=component, file=file))
        package = self.folder / f"{source.name}.msi"
        subprocess.run(["wixl", "-a", "x64", "-o", str(package), "product.wxs"], check=True, capture_output=True,
                       cwd=source, timeout=120)
        self._built.append(package)
        return package

    def msiexec(self, action, package):
        """msiexec /i or /x, silent; its exit code."""
        return self.wine.run("msiexec", action, self.wine.windows_path(package), "/qn", timeout=300).code

    def installed_versions(self, name):
        """DisplayVersion of every product registered for uninstall under that name."""
        versions = []
        for _ in range(3):  # `reg` has failed or printed nothing here under load
            result = subprocess.run(["wine", "reg", "query", UNINSTALL_KEY, "/s"], env=self.wine.env,
                                    stdin=subprocess.DEVNULL, capture_output=True, timeout=120)
            if result.returncode == 0 and result.stdout.strip():
                break
        entry = {}
        for line in result.stdout.decode("utf-8", "replace").splitlines() + [""]:
            if not line.startswith(" "):  # a key line (or the end) closes the previous entry
                if entry.get("DisplayName") == name:
                    versions.append(entry.get("DisplayVersion"))
                entry = {}
            elif len(parts := line.strip().split(None, 2)) == 3:
                entry[parts[0]] = parts[2]
        return versions

    def test_installer(self, folder, name="setup.exe", exit_code=0):
        """The test installer copied to folder/name, and the environment that makes it record its
        command lines and exit with exit_code; recorded() reads them back."""
        target = pathlib.Path(folder) / name
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(TEST_INSTALLER, target)
        record = self.folder / "installer-record.txt"
        return target, {"TEST_INSTALLER_RECORD": self.wine.windows_path(record),
                        "TEST_INSTALLER_EXIT_CODE": str(exit_code)}

    def recorded(self):
        record = self.folder / "installer-record.txt"
        return [line.lower() for line in record.read_text(encoding="utf-8").splitlines()] if record.exists() else []

    def remove(self):
        for package in self._built:
            self.msiexec("/x", package)  # not installed (1605) is fine
        shutil.rmtree(self.folder, ignore_errors=True)
