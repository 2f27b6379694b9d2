"""Every example of the documents, pasted into the shells that they name."""

import pathlib
import re
import subprocess
import uuid

import pytest

import stage

SHELLS = {"$": stage.in_network("client", "bash"), "#": ["bash"]}


class Shell:
    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True)

    def run(self, command):
        mark = uuid.uuid4().hex
        self.process.stdin.write(f"{command}\necho; echo {mark}\n")
        self.process.stdin.flush()
        output = ""
        while not output.endswith(f"\n{mark}\n"):
            line = self.process.stdout.readline()
            assert line, f"the shell has ended: {output}"
            output += line
        return output.removesuffix(f"\n{mark}\n").rstrip("\n")

    def close(self):
        self.process.stdin.close()
        self.process.wait(10)


def examples(text):
    """(prompt, command, expected output) of every command, in order."""
    found = []
    for block in re.findall(r"^```console\n(.*?)^```$", text, re.M | re.S):
        for line in block.splitlines():
            if line[:2] in ("$ ", "# "):
                found.append((line[0], line[2:], []))
            else:
                found[-1][2].append(line)
    return [(prompt, command, "\n".join(output)) for prompt, command, output in found]


def matches(expected, output):
    """A line of three dots stands for any number of lines, three dots in a line for anything."""
    pattern = re.escape(expected + "\n")
    pattern = re.sub(r"(^|(?<=\n))\\\.\\\.\\\.\\?\n", "(?:.*\\\\n)*?", pattern)
    pattern = pattern.replace(r"\.\.\.", ".*")
    return re.fullmatch(pattern, output + "\n")


@pytest.mark.parametrize("name", ("protocols", "security"))
def test_examples(name):
    found = examples(pathlib.Path(f"docs/{name}.md").read_text())
    assert found
    shells = {prompt: Shell(command) for prompt, command in SHELLS.items()}
    with stage.Manager("plain"), stage.agent() as agent:
        stage.wait_for_log("* SignIn succeed")
        agent.wait_until_serving()
        for prompt, command, expected in found:
            output = shells[prompt].run(command)
            assert matches(expected, output), f"{prompt} {command}\n{output}\n--- instead of\n{expected}"
        for shell in shells.values():
            shell.close()
