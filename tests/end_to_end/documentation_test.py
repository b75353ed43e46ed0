"""The manual page and the completions, compared with --help."""

import functools
import re

from harness import BUILD, EndToEndTest

MADE = BUILD / "documentation"
COMMANDS = ("", "record", "replay", "stream", "shot", "pcm", "remux", "devices", "doctor", "control", "help", "version")


def options_in(text):
    return set(re.findall(r"(?<![\w-])--([a-z][a-z-]*)", text))


class Documentation(EndToEndTest):
    """Each test catches an option that one of the four lacks, or has and --help has not."""

    @functools.cache
    def help_of(self, command):
        said = self.run_program("screenrecord", *command.split(), "--help")
        return options_in("\n".join(re.findall(r"^  (?:-\w,)?(--\S+)", said, flags=re.M)))

    def assert_same_as_help(self, options_of):
        for command in COMMANDS:
            with self.subTest(command):
                self.assertEqual(options_of(command), self.help_of(command))

    def typed_in_bash(self, *words):
        return self.run_program("bash", "-c", 'source "$0" || exit; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); '
                                '_screenrecord; printf "%s\\n" "${COMPREPLY[@]}"', MADE / "screenrecord", *words)

    def test_words_for_options(self):
        for word, option in {"help": "--help", "help record": "record --help", "version": "--version"}.items():
            self.assertEqual(self.run_program("screenrecord", *word.split()),
                             self.run_program("screenrecord", *option.split()))

    def test_manual_page(self):
        text = (MADE / "screenrecord.1").read_text("utf-8").replace("\\-", "-")
        sections = re.split(r"\n\.S[SH] ", re.sub(r"\\f[BIR]", "", text))
        page = {section.partition("\n")[0]: options_in("\n".join(re.findall(r"^\.TP\n(.*)", section, flags=re.M)))
                for section in sections}
        self.assert_same_as_help(lambda command: page[f"screenrecord {command}" if command else "Before a command"])
        warnings = self.start("groff", "-ww", "-man", "-Tutf8", "-z", MADE / "screenrecord.1")
        self.assert_exit(warnings, 0)
        self.assertEqual(warnings.errors(), "")

    def test_bash(self):
        self.assert_same_as_help(lambda command: options_in(self.typed_in_bash("screenrecord", *command.split(), "--")))
        cases = {("",): set(COMMANDS) - {""}, ("rec",): {"record"}, ("record", "--packet-size", ""): {"188", "192"},
                 ("shot", "--format", "b"): {"bgra"}, ("control", "s"): {"stop", "save", "status"},
                 ("record", "--sound", ""): {"desktop", "microphone", "both", "none"},
                 ("help", "d"): {"devices", "doctor"}}
        for words, wanted in cases.items():
            offered = self.typed_in_bash("screenrecord", *words).split()
            self.assertEqual({word for word in offered if not word.startswith("-")}, wanted)

    def test_zsh(self):
        script = ('_arguments() { print -l -- "$@" }; _describe() { }; CURRENT=$(($# + 1)); words=(screenrecord "$@"); '
                  'source "$0"')

        def offered(command):
            words = [command, ""] if command else [""]
            completed = self.run_program("zsh", "-fc", script, MADE / "_screenrecord", *words)
            return options_in(re.sub(r"\[.*?\](?=:|$|\n)", "", completed))

        self.assert_same_as_help(offered)

    def test_words_that_follow_a_command(self):
        wanted = {"stop", "pause", "resume", "save", "status"}
        self.assertIn(f":word:({' '.join(('stop', 'pause', 'resume', 'save', 'status'))})",
                      (MADE / "_screenrecord").read_text("utf-8"))
        offered = self.run_program("fish", "--no-config", "-c",
                                   f"source {MADE}/screenrecord.fish; complete -C 'screenrecord control '")
        self.assertLessEqual(wanted, {line.partition("\t")[0] for line in offered.splitlines()})

    def test_fish(self):
        script = f"source {MADE}/screenrecord.fish; complete -C "
        self.assert_same_as_help(lambda command: {line.partition("\t")[0][2:] for line in self.run_program(
            "fish", "--no-config", "-c", script + f"'screenrecord {command}{' ' * bool(command)}--'").splitlines()})
