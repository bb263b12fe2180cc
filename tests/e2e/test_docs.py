"""What the documentation shows can be taken as it stands: configurations load, keys and options are those of kvt."""
import re
import subprocess

import pytest

from conftest import BUILD, ROOT

KVT = str(BUILD / "kvt")
DOCS = ROOT / "docs"
NO_SOURCE = "nothing"  # a URL that ends the run as soon as the settings have been read and shown
LEAST = "kvt: { log: {}; alert_log: {}; runtime: {}; stream_analyzer: { enabled = true; }; };"
FOLDERS = ["/var/log/kvt", "/var/lib/kvt", "/var/log", "/run"]  # of the examples


def shown_configurations():
    """Each configuration of kvt in the pages: from a line that reads `kvt:` to the brace that ends it."""
    for page in sorted(DOCS.glob("*.md")):
        for i, text in enumerate(re.findall(r"^( *kvt:\n *\{\n.*?^ {0,4}\};)$", page.read_text(), re.M | re.S)):
            yield pytest.param(text, id=f"{page.stem}-{i}")


def settings(text, folder):
    """The lines that a start with this configuration says, without those that have a time in front; and its status."""
    (folder / "kvt.conf").write_text(text)
    done = subprocess.run([KVT, "-T", "-C", "kvt.conf", "-S", "x", "-N", "1", "-i", NO_SOURCE], capture_output=True,
                          text=True, timeout=20, stdin=subprocess.DEVNULL, cwd=folder)
    said = done.stderr + "".join(path.read_text() for path in folder.glob("kvt*.log"))
    lines = said.splitlines()
    return [line for line in lines if not re.match(r"\d{4}-", line)], [line for line in lines if " (ERR) " in line]


def test_the_example_loads_without_a_complaint(tmp_path):
    shown, errors = settings((DOCS / "kvt.conf").read_text(), tmp_path)
    assert [line for line in errors if not line.endswith(f"error parsing URI: [{NO_SOURCE}]")] == []
    assert len(errors) == 1 and "\taccess-log-alerts:     no" in shown


def test_the_example_changes_nothing_but_that_the_analyzer_is_on(tmp_path):
    assert settings((DOCS / "kvt.conf").read_text(), tmp_path)[0] == settings(LEAST, tmp_path)[0]


def test_the_example_has_every_key():
    sources = [ROOT / "tavrin/app_cfg.cpp", ROOT / "tavrin/tsanalyze_cfg.cpp", ROOT / "common/appcfg.cpp"]
    code = "".join(path.read_text() for path in sources)
    # Keys stand in calls of the loaders and in tables of them: as whole paths, or by name within their group.
    keys = set(re.findall(r'"(?:kvt|source)\.([a-z0-9_.]+)"', code))
    keys |= set(re.findall(r'(?:_or|_str|_size|lookup\w*)\(\w+, "([a-z0-9_.]+)"', code))
    assert len(keys) > 25, keys
    example = (DOCS / "kvt.conf").read_text()
    for key in keys:
        assert re.search(rf"^ *{key.split('.')[-1]}( =|:)", example, re.M), key


@pytest.mark.parametrize("text", shown_configurations())
def test_a_configuration_of_the_pages_loads(text, tmp_path):
    for folder in FOLDERS:
        text = text.replace(f'"{folder}', f'"{tmp_path}')
    shown, errors = settings(text, tmp_path)
    assert len(errors) == 1 and errors[0].endswith(f"error parsing URI: [{NO_SOURCE}]")
    assert "\taccess-log-alerts:     YES" in shown and "\tvalidate CC sequence:  yes" in shown


def test_the_pages_show_configurations():
    assert len(list(shown_configurations())) >= 2


@pytest.mark.parametrize("page, form", [("man/kvt.1", r"^\.It Fl (\w) , Fl (?:.* )?Fl (\w+)"),
                                        ("configuration.md", r"^\| `-(\w)`, .*`--(\w+)`")])
def test_the_options_are_those_that_kvt_takes(page, form):
    told = {(short, name) for short, name in re.findall(form, (DOCS / page).read_text(), re.M) if short != "h"}
    guide = subprocess.run([KVT, "--help"], capture_output=True, text=True, timeout=20).stderr
    taken = set(re.findall(r"^  -(\w)\|--(\w+)", guide, re.M)) - {("R", "minread"), ("D", "snapdir"), ("x", "snapfx")}
    assert told == taken and len(taken) > 15
