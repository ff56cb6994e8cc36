"""Finding and reading the active update under Wine: which root's key a run takes, what it logs of
it, and how a record the run cannot use still ends through the closing steps."""
import pytest

from scenario import URL, arrange, run, settings, telemetry, update_key, values
from wine import CURRENT_ROOT, LEGACY_ROOT

LEGACY_ID = "{e2e-legacy-update}"
CURRENT_ID = "{e2e-current-update}"


@pytest.mark.parametrize("roots, taken, search_lines", [
    (("legacy", "current"), "legacy",
     ["UtilGetActiveUpdate: Tessix to Quorvane agent upgrade detected"]),
    (("current",), "current", ["UtilGetActiveUpdate: No Tessix active updates",
                               "UtilGetActiveUpdate: Check for Quorvane active updates"]),
], ids=["both-roots", "current-only"])
def test_the_legacy_root_wins_and_its_values_are_logged(wine, tool, roots, taken, search_lines):
    keys = {
        "legacy": (LEGACY_ROOT, LEGACY_ID,
                   {"STATE": "READY", "AGENT": "OTHER", "VERSION": "7.4.1",
                    "URL": ["https://old.invalid/a", "https://old.invalid/b"],
                    "ARCH": "64-BitAgent", "FILENAME": "legacy.msi"}),
        "current": (CURRENT_ROOT, CURRENT_ID,
                    {"STATE": "READY", "AGENT": "OTHER", "VERSION": "8.13.0", "URL": [URL],
                     "ARCH": "64-BitAgent", "FILENAME": "current.msi"}),
    }
    arrange(wine, settings(), *({update_key(root, key_id): data}
                                for root, key_id, data in (keys[name] for name in roots)))

    result = run(wine, tool)

    root, key_id, data = keys[taken]
    other_id = CURRENT_ID if taken == "legacy" else LEGACY_ID
    messages = result.messages
    for line in search_lines + [f"UtilGetActiveUpdate: Update key: {key_id}"]:
        assert line in messages
    urls = data["URL"]
    expected = {f"Update key: {key_id} {name} = {text}" for name, text in data.items()
                if name != "URL"}
    expected.add(f"Update key: {key_id} URL = {urls[0]}")  # a multi-string shows its first item
    assert expected <= set(messages)
    assert f"UtilGetRegistry: URL length: {len(urls)} [{','.join(urls)}]" in messages
    assert not any(other_id in line for line in messages)
    # A READY update is neither downloaded nor installed: the run fails and records as much.
    assert result.code == -1
    assert messages[-2:] == ["wmain: Updatetool rc = ERR_FAILURE", "=== End ==="]
    assert [entry["updatedGUID"] for entry in telemetry(wine)["updateTool"]] == [key_id]


BASE = {"STATE": "READY", "AGENT": "OTHER", "URL": [URL], "ARCH": "64-BitAgent"}
REFUSED = "Util_GetUpdateState: Update key: {id} Registry failure"


@pytest.mark.parametrize("root, changes, lines", [
    (CURRENT_ROOT, {"URL": None}, ["UtilGetRegistry: required parameter empty", REFUSED]),
    # Empty pieces of a multi-string are dropped: a list of blanks is no list.
    (LEGACY_ROOT, {"URL": ["", ""]}, ["UtilGetRegistry: URL length: 0 []",
                                      "UtilGetRegistry: required parameter empty", REFUSED]),
    (CURRENT_ROOT, {"AGENT": None}, ["UtilGetRegistry: required parameter empty", REFUSED]),
    (CURRENT_ROOT, {"AGENT": "Widget", "FILENAME": "setup.exe"},
     ["Util_GetUpdateState: Update key: {id} invalid agent: Widget"]),
    (CURRENT_ROOT, None, ["UtilGetRegistry: Quorvane Update key: {id} empty key", REFUSED]),
    (LEGACY_ROOT, None, ["UtilGetRegistry: Tessix Update key: {id} empty key", REFUSED]),
], ids=["no-url", "blank-urls", "no-agent", "unknown-agent", "empty-key", "empty-legacy-key"])
def test_an_unusable_record_still_ends_through_the_closing_steps(wine, tool, root, changes, lines):
    key_id = "{e2e-unusable}"
    if changes is None:
        data = {}
    else:
        data = {name: text for name, text in {**BASE, **changes}.items() if text is not None}
    arrange(wine, settings(), {update_key(root, key_id): data})

    result = run(wine, tool)

    messages = result.messages
    for line in lines:
        assert line.format(id=key_id) in messages
    # Set-up failed, yet the outcome, telemetry, clean-up and the final line all follow.
    assert result.code == -1
    closing = result.order_of(
        "Util_UpdateDone: Updating state for result 'ERR_FAILURE', legacy workflow:'0' ",
        "Util_UpdateDataForTelemetry: Saving to json file - ",
        "Util_DeleteRegistryIfExists: ",  # the clean-up
        "wmain: Updatetool rc = ERR_FAILURE")
    assert None not in closing and closing == sorted(closing), closing
    assert [entry["updatedGUID"] for entry in telemetry(wine)["updateTool"]] == [key_id]
    stored = values(wine, update_key(root, key_id))
    assert (stored["RESULT"], stored["RETRY"]) == ("", "0")
