"""The farm example of docs/report.md, run as GitLab would run its script:
the boards are played on the engine model (ssh runs the command here)."""
import os
import re
import subprocess

import pytest
from junitparser import Failure, JUnitXml

from conftest import AUTHOR, PLAYER

SOURCE = os.environ.get("QORA_SOURCE_DIR", ".")
REPORT = os.environ.get("QORA_REPORT", "build/qora_report")


def gitlab_script():
    """The GitLab job's script lines, as one shell script that stops at the
    first failing line (as GitLab does)."""
    text = open(os.path.join(SOURCE, "docs", "report.md")).read()
    job = re.search(r"```yaml\n(.*?)```", text, re.S).group(1)
    lines = re.findall(r"^    - (.*)$", job.split("artifacts:")[0], re.M)
    return "set -e\nssh() { shift; \"$@\"; }\n" + "\n".join(lines) + "\n"


@pytest.mark.parametrize("golden,status,reason", [
    ("golden.hex", 0, None),
    ("p_goldn.hex", 1, "open file("),  # a typo in the golden's name
])
def test_the_gitlab_farm_job(tmp_path, golden, status, reason):
    subprocess.run([AUTHOR, str(tmp_path)], check=True, stdout=subprocess.DEVNULL)
    demo = tmp_path / "conv_demo"
    script = gitlab_script().replace("-f MaxPower", f"-f {demo / 'pattern.hex'} -g {demo / golden}")
    tools = os.pathsep.join(os.path.dirname(os.path.abspath(p)) for p in (PLAYER, REPORT))
    env = dict(os.environ, BOARDS="board1 board2", PATH=tools + os.pathsep + os.environ["PATH"])
    job = subprocess.run(["bash", "-c", script], cwd=tmp_path, env=env, capture_output=True, text=True)
    assert job.returncode == status, job.stderr
    assert (tmp_path / "charts" / "timings.png").exists()  # drawn whatever the verdict
    cases = [c for suite in JUnitXml.fromfile(str(tmp_path / "results.xml")) for c in suite]
    assert len(cases) == 2 * 1000  # two boards, -l 1000
    if reason:
        assert all(isinstance(c.result[0], Failure) and reason in c.result[0].text for c in cases)
        assert reason in job.stdout
