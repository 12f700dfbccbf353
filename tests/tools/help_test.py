#!/usr/bin/env python3
"""The manual pages and completions that the program prints."""
import shutil
import subprocess
import unittest

from program import TALVO, ProgramTest


class HelpTest(ProgramTest):
    def help(self, form, *command):
        run = self.run_talvo("help", "--format", form, *command)
        self.assertEqual((0, ""), (run.returncode, run.stderr))
        return run.stdout

    def test_each_command_has_a_page_with_its_options(self):
        names = self.help("names").split()
        self.assertIn("send", names)
        pages = [self.make("talvo.1", self.help("man"))] + [self.make(f"talvo-{name}.1", self.help("man", name)) for name in names]
        self.assertTrue(all(f".It Cm \\&{name}\n" in pages[0].read_text() for name in names))
        self.assertIn(".It Fl \\-out Ar \\&DIR\n", (self.directory / "talvo-recv.1").read_text())
        if shutil.which("mandoc"):
            lint = subprocess.run(["mandoc", "-T", "lint", *(page.name for page in pages)], cwd=self.directory, text=True, capture_output=True)
            self.assertEqual((0, ""), (lint.returncode, lint.stdout))

    def complete(self, *words):
        script = f"""source {self.make('talvo.bash', self.help('bash'))}
            COMP_WORDS=(talvo "$@"); COMP_CWORD=$#; _talvo 2>/dev/null; printf '%s\\n' "${{COMPREPLY[@]}}" """
        return subprocess.run(["bash", "-c", script, "bash", *words], text=True, capture_output=True, check=True).stdout.split()

    def test_completions_know_commands_options_and_choices(self):
        self.assertEqual(["send", "serve"], self.complete("se"))
        self.assertEqual(["package", "package-keepalive"], self.complete("echo", "--type", "pa"))
        self.assertEqual(["reliable", "reliable-plain"], self.complete("echo", "--type", "=", "rel"))
        self.assertIn("tcp", self.complete("echo", "--type", "="))
        self.assertEqual(["--secret", "--secret-file"], self.complete("recv", "--sec"))
        self.assertEqual([], self.complete("recv", "--port", ""))
        (self.directory / "box").mkdir()
        self.assertEqual([f"{self.directory}/box"], self.complete("recv", "--out", f"{self.directory}/b"))
        for shell in "zsh", "fish":
            script = self.make("script", self.help(shell))
            self.assertIn("secret-file", script.read_text())
            if shutil.which(shell):
                subprocess.run([shell, "-n", script], check=True)


if __name__ == "__main__":
    unittest.main()
