"""Every example of the documents, pasted into the shells that they name."""

import os
import pathlib
import re
import subprocess
import uuid

import pytest

import stage

SHELLS = {"client$": stage.in_network("client", "bash"), "manager$": stage.in_network("manager", "bash"),
          "box#": ["bash"]}
PROMPT = re.compile(f"({'|'.join(map(re.escape, SHELLS))}) (.*)")


class Shell:
    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True,
                                        env={**os.environ, "PATH": f"{os.environ['PATH']}:{stage.ZELCTL.parent}"})

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
    """(prompt, command, expected output) of every command, in order; what is between <<'END' and END is its input."""
    found = []
    for block in re.findall(r"^```console\n(.*?)^```$", text, re.M | re.S):
        lines = iter(block.splitlines())
        for line in lines:
            if typed := PROMPT.fullmatch(line):
                prompt, command = typed.groups()
                if "<<'END'" in command:
                    command = "\n".join([command, *iter(lines.__next__, "END"), "END"])
                found.append((prompt, command, []))
            else:
                found[-1][2].append(line)
    return [(prompt, command, "\n".join(output)) for prompt, command, output in found]


def save_programs(text):
    """Those in Python, to the files that are named before them."""
    for path, program in re.findall(r"^`(/tmp/\w+\.py)`:\n\n```python\n(.*?)^```$", text, re.M | re.S):
        pathlib.Path(path).write_text(program)


def matches(expected, output):
    """A line of three dots stands for any number of lines, three dots in a line for anything."""
    pattern = re.escape(expected + "\n")
    pattern = re.sub(r"(^|(?<=\n))\\\.\\\.\\\.\\?\n", "(?:.*\\\\n)*?", pattern)
    pattern = pattern.replace(r"\.\.\.", ".*")
    return re.fullmatch(pattern, output + "\n")


@pytest.mark.parametrize("name", ("protocols", "security", "python"))
def test_examples(name):
    text = pathlib.Path(f"docs/{name}.md").read_text()
    save_programs(text)
    found = examples(text)
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
