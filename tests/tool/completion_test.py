"""Bash and zsh complete every option of every command's help, the commands and the presets."""

import os
import re
import subprocess
import sys
import unittest
from shutil import which

TOOL, BASH, ZSH = sys.argv.pop(1), sys.argv.pop(1), sys.argv.pop(1)

ASK_BASH = """
source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
_speech_enhance "$1" "${@: -1}" "${@: -2:1}"; printf '%s\\n' "${COMPREPLY[@]}"
"""
# The two functions of zsh's completion that the script calls, as ones that print what they offer.
ASK_ZSH = """
compadd() { shift; print -l -- "$@" }
_files() { }
completion() { source "$script" }
script=$1; shift; words=("$@"); CURRENT=$#; completion
"""


def output(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def offers(shell, *words):
    line = ["bash", "-c", ASK_BASH, BASH] if shell == "bash" else ["zsh", "-f", "-c", ASK_ZSH, "zsh", ZSH]
    return set(output(*line, TOOL, *words).split())


def commands():
    section = re.search(r"^Commands:\n(.*?)\n\n", output(TOOL, "--help"), re.M | re.S)
    return re.findall(r"^  (\w+) ", section[1], re.M)


class Completion(unittest.TestCase):
    def test_offers_what_the_help_lists(self):
        self.assertIn("batch", commands())
        for shell in ("bash", "zsh"):
            if not which(shell):
                print(f"{shell} is not installed", file=sys.stderr)
                continue
            with self.subTest(shell):
                self.assertLessEqual(set(commands()), offers(shell, ""))
                self.assertEqual(offers(shell, "--mode", ""), {"denoise", "mix", "suppress"})
                self.assertLessEqual({"call", "recognition"}, offers(shell, "--preset", ""))
            for command in [[], *([name] for name in commands())]:
                with self.subTest(shell, command=command):
                    text = output(TOOL, *command, "--help")
                    named = set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", re.sub(r"(?m)^(?!  -).*|(?<=\S)  .*", "", text)))
                    self.assertIn("--help", named)
                    self.assertLessEqual(named, offers(shell, *command, "--"))
                    self.assertIn("-h", offers(shell, *command, "-"))


if __name__ == "__main__":
    os.environ["LC_ALL"] = "C.UTF-8"
    unittest.main()
