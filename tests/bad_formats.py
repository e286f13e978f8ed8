#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Compiles calls of the recording headers: those with a format that fits, and those that must not compile.

    tests/bad_formats.py C-COMPILER C++-COMPILER INCLUDE-FOLDER README
"""
import re
import subprocess
import sys
import unittest

C, CXX, INC, README = sys.argv[1:5]

# Each is recorded with what stands behind it.
GOOD_CPP = ['"plain 100%%"', '"%s %d", "a", 5', '"%2$s %1$d", 5, "a"', '"%p", nullptr', '"%c%c", \'c\', 65', '"%5.1f", 0.5', '"%1$hx %1$hx", 5L']
BAD_CPP = {
    '"%d", "text"': "conversion_does_not_fit_its_argument",
    '"%s", 5': "conversion_does_not_fit_its_argument",
    '"%f", 5': "conversion_does_not_fit_its_argument",
    '"%d", 0.5': "conversion_does_not_fit_its_argument",
    '"%d", ~0UL': "conversion_does_not_fit_its_argument",
    '"%c", 5L': "conversion_does_not_fit_its_argument",
    '"%s", nullptr': "conversion_does_not_fit_its_argument",
    '"%d %d", 5': "conversion_has_no_argument",
    '"%3$d", 5': "conversion_has_no_argument",
    '"%d", 5, 6': "argument_has_no_conversion",
    '"%2$d", 5, 6': "argument_has_no_conversion",
    '"%n", &eid': "conversion_cannot_be_recorded",
    '"%*d", 5, 6': "conversion_cannot_be_recorded",
    '"100%"': "conversion_cannot_be_recorded",
    '"%1$d %d", 5': "numbered_and_other_conversions",
    '"%1$hhd %1$d", 5': "conversions_show_two_values_of_one_argument",
    "eid": "",  # a format that is no literal
}
BAD_C = ['"%d", "text"', '"%s", 5', '"%d"', '"%s %d", "a"', '"%y"']


def compile_text(compiler, standard, source):
    language = "c++" if standard.startswith("c++") else "c"
    command = [compiler, f"-std={standard}", "-x", language, "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-I", INC, "-"]
    return subprocess.run(command, input=source, capture_output=True, text=True)


def complaints(calls):
    """What the C++ compiler says of each call, all of them compiled at once; nothing of a good one."""
    source = "#include <qx_record.hpp>\n"
    for number, call in enumerate(calls):
        source += f'#line 1 "call {number}"\nvoid f{number}() {{ char eid[43] = ""; zelk::recorder_t r("x"); (void)eid; record(r, nullptr, {call}); }}\n'
    said = {}
    for part in re.split(r"^(?=call \d+:)", compile_text(CXX, "c++20", source).stderr, flags=re.MULTILINE)[1:]:
        call = calls[int(part[5 : part.index(":")])]
        said[call] = said.get(call, "") + part
    return said


def c(call):
    source = f"#include <qx_record.h>\nint main(void) {{ return zk_record_message(NULL, NULL, NULL, NULL, {call}); }}\n"
    return compile_text(C, "c11", source)


class Formats(unittest.TestCase):
    def test_what_fits_compiles(self):
        self.assertEqual(complaints(GOOD_CPP), {})
        self.assertEqual(c('"%s %d", "a", 5').stderr, "")

    def test_what_does_not_fit_does_not_compile_and_the_compiler_says_why(self):
        said = complaints(list(BAD_CPP))
        for call, reason in BAD_CPP.items():
            self.assertIn(call, said)
            self.assertIn(reason, said[call], call)
        for call in BAD_C:
            self.assertNotEqual(c(call).returncode, 0, call)

    def test_the_example_of_the_readme_is_good_c11_and_good_cpp20(self):
        with open(README, encoding="utf-8") as page:
            text = page.read()
        examples = re.findall(r"^    #include <qx_record\.hp*>\n(?:(?:    .*)?\n)*", text, re.MULTILINE)
        self.assertEqual(len(examples), 2)
        in_c, in_cpp = [re.sub("^    ", "", example, flags=re.MULTILINE) for example in examples]
        self.assertEqual(compile_text(C, "c11", in_c).stderr, "")
        self.assertEqual(compile_text(CXX, "c++20", in_c).stderr, "")
        self.assertEqual(compile_text(CXX, "c++20", in_cpp).stderr, "")


unittest.main(argv=sys.argv[:1])
