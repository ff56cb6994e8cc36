"""The trust mode is the administrator's choice: a thumbprint of the server's certificate in METADATA
widens neither the PEM file nor the system store, and only THUMBPRINT mode pins."""
import contextlib

import pytest

from download_scenario import RecordingHttpsServer, install_pem_bundle, machine_root, metadata, package_values
from scenario import CURRENT_ROOT, arrange, run, settings
from servers import Resource
from test_download_runs import (BODY, assert_delivered, assert_failed, certs, download_update,  # noqa: F401
                                workspace)


@pytest.mark.parametrize("certtype, accepted", [
    ("CERT_PEM", False),        # the bundle holds another CA; the system store would have vouched
    ("CERT_SYSTEM_CA", False),  # a self-signed server
    ("THUMBPRINT", True),
])
def test_only_the_named_mode_decides(wine, tool, certs, servers, workspace, certtype, accepted):  # noqa: F811
    identity = certs.self_signed if certtype == "CERT_SYSTEM_CA" else certs.localhost
    keys = {}
    if certtype == "CERT_PEM":
        keys = {CURRENT_ROOT: {"AgentInstallPath": install_pem_bundle(wine, certs.other_ca.pem)}}
    server = servers(RecordingHttpsServer(identity))
    url = server.add("/packages/setup.exe", Resource(BODY))
    arrange(wine, settings(), keys, download_update(package_values(BODY, [url]), certtype=certtype,
                                                    METADATA=metadata(identity.sha1().upper())))

    with machine_root(wine, certs.ca.pem) if certtype == "CERT_PEM" else contextlib.nullcontext():
        result = run(wine, tool)

    if accepted:
        assert_delivered(wine, workspace, result)
    else:
        assert_failed(wine, result, 9, "KESCLIENT_HTTP_CERTIFICATE_ERROR")
    # A download run's log names the host, once.
    assert result.messages.count("Agent::IsHostX64: host system: 64-bit") == 1, result.log
