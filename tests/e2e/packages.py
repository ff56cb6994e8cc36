"""Installers on the prefix's drive C: x64 MSI packages from wixl, and the project's test installer."""
import pathlib
import re
import shutil
import subprocess
import tempfile
import uuid

from harness import BIN, VALUE

MAIN_AGENT_UPGRADE_CODE = "{7C41E2A9-3B58-4F0D-9E62-1A8D5C37B04E}"  # the tool finds the main agent by it
UNINSTALL_KEY = r"HKEY_LOCAL_MACHINE\Software\Microsoft\Windows\CurrentVersion\Uninstall"
WXS = """<?xml version="1.0" encoding="utf-8"?><Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
<Product Id="*" Name="{name}" Language="1033" Version="{version}" Manufacturer="Quorvane Tests"
 UpgradeCode="{upgrade_code}"><Package InstallerVersion="200" Compressed="yes" InstallScope="perMachine"/>
<Media Id="1" Cabinet="p.cab" EmbedCab="yes"/><MajorUpgrade DowngradeErrorMessage="A newer version is installed."/>
<Feature Id="Main" Level="1"><ComponentRef Id="Payload"/></Feature><Directory Id="TARGETDIR" Name="SourceDir">
<Directory Id="ProgramFiles64Folder"><Directory Id="INSTALLDIR" Name="{name}"><Component Id="Payload" Guid="{component}"
 Win64="yes"><File Id="Payload" Name="{file}" Source="{file}" KeyPath="yes"/></Component></Directory></Directory>
</Directory></Product></Wix>
"""


class Packages:
    """A folder of installers inside a Wine prefix; remove() uninstalls what it built."""

    def __init__(self, wine):
        self.wine, self.built = wine, []
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="e2e-packages-", dir=wine.path / "drive_c"))
        self.record = self.folder / "installer-record.txt"

    def msi(self, name, version, upgrade_code, payload=None, file="agent.txt"):
        """One file into Program Files\\<name>; the same name keeps its component across versions."""
        source = self.folder / f"{name.replace(' ', '-')}-{version}"
        source.mkdir()
        (source / file).write_bytes(payload if payload is not None else f"{name} {version}\n".encode())
        component = "{" + str(uuid.uuid5(uuid.NAMESPACE_URL, "e2e:" + name)).upper() + "}"
        (source / "product.wxs").write_text(WXS.format(name=name, version=version, upgrade_code=upgrade_code,
                                                       component=component, file=file))
        self.built.append(self.folder / f"{source.name}.msi")
        subprocess.run(["wixl", "-a", "x64", "-o", str(self.built[-1]), "product.wxs"], check=True,
                       capture_output=True, cwd=source, timeout=120)
        return self.built[-1]

    def msiexec(self, action, package):
        return self.wine.run("msiexec", action, self.wine.windows_path(package), "/qn", timeout=300).code

    def installed_versions(self, name):
        entries = [dict(VALUE.findall(key)) for key in re.split(r"(?m)^HKEY", self.wine.query(UNINSTALL_KEY, "/s"))]
        return [entry.get("DisplayVersion") for entry in entries if entry.get("DisplayName") == name]

    def test_installer(self, folder, name="setup.exe", exit_code=0):
        """A copy at folder/name; the environment makes it record its command lines and exit with exit_code."""
        target = pathlib.Path(folder) / name
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(BIN / "test_installer.exe", target)
        return target, {"TEST_INSTALLER_RECORD": self.wine.windows_path(self.record),
                        "TEST_INSTALLER_EXIT_CODE": str(exit_code)}

    def recorded(self):
        return self.record.exists() and self.record.read_text(encoding="utf-8").lower().splitlines() or []

    def remove(self):
        for package in self.built:
            self.msiexec("/x", package)  # not installed (1605) is fine
        shutil.rmtree(self.folder, ignore_errors=True)
