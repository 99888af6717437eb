#!/usr/bin/env python3
"""Whether other declarations of the decoder library are read right, whatever form they have, and what is said about
those that cannot be used."""
import contextlib
import io
import re
import sys
import tempfile
import unittest
from pathlib import Path
from unittest import mock

import foreign

SEED = "some"


def read(folder, output):
    """(exit status, what was said)"""
    said = io.StringIO()
    with mock.patch.object(sys, "argv", ["decoder-include.py", str(folder), str(output)]), \
            contextlib.redirect_stderr(said):
        return foreign.decoder_include.main(), said.getvalue()


class DecoderInclude(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory(prefix="a folder – ")
        self.addCleanup(scratch.cleanup)
        self.folder = Path(scratch.name) / "include"
        self.output = Path(scratch.name) / "BlackmagicRawAPI.h"

    # Faults: a form that is misread; an order, an identifier or a value that is not the declarations' own.
    def test_all_forms_say_the_same(self):
        texts = set()
        for dialect in foreign.DIALECTS:
            foreign.write(SEED, dialect, self.folder / dialect)
            self.assertEqual((0, ""), read(self.folder / dialect, self.output), dialect)
            texts.add(self.output.read_text().split("\n", 2)[2]) # behind the lines that name the files
        self.assertEqual(1, len(texts))
        for interface, (rows, identifier) in foreign.shuffled(SEED).items():
            body = re.search(r"struct " + interface + r" : IUnknown \{(.*?)\n\};", texts.copy().pop(), re.S)[1]
            named = re.findall(r"STDMETHODCALLTYPE (\w+)\(", body)
            expected = [f"Slot{place}" if name.startswith("Other") else name for place, (_, name, _) in enumerate(rows, 3)]
            self.assertEqual(expected, named[:len(expected)], interface)
            declared = f"__CRT_UUID_DECL({interface}, 0x{identifier[:8]}, "
            self.assertEqual(interface in foreign.decoder_include.IDENTIFIED, declared in texts.copy().pop())

    # Faults: a lack that only the compiler finds, or nobody; a finding without the names that it is about.
    def test_what_cannot_be_used_is_said_by_name(self):
        def changed(old, new, count=1):
            return lambda text: re.sub(old, new, text, count=count, flags=re.S)
        cases = [
            ([changed(r"virtual HRESULT STDMETHODCALLTYPE FlushJobs\(.*?;", ""),
              changed(r"(virtual HRESULT STDMETHODCALLTYPE )OpenClip\(", r"\1OpenClip(int) = 0; \1OpenClip("),
              changed(r'MIDL_INTERFACE\("[^"]*"\)(\s*IBlackmagicRawClipEx )', r"struct\1")],
             ["IBlackmagicRaw lacks FlushJobs", "IBlackmagicRaw declares OpenClip 2 times",
              "IBlackmagicRawClipEx has no identifier"]),
            ([changed(r"/\* \[in\] \*/ uint64_t\*", "float*"),
              changed(r"HRESULT( STDMETHODCALLTYPE Submit\()", r"void\1"),
              changed(r"(STDMETHODCALLTYPE SetCallback\()", r"\1int more, ")],
             ["IBlackmagicRawClip::GetFrameCount: argument 1 is a pointer to a floating number of 4 bytes, where uint64_t*",
              "IBlackmagicRawJob::Submit: its result is nothing, where HRESULT is needed",
              "IBlackmagicRaw::SetCallback takes 2 arguments, where 1 are needed"]),
            ([changed(r"MIDL_INTERFACE[^;]*?\n(IBlackmagicRaw(?:Clip|Frame)\w*) : .*?\n};", "", count=0)],
             ["lacks the interface IBlackmagicRawClip", "lacks the interface IBlackmagicRawFrame"]),
            ([changed(r"HRESULT", "HRESLUT")], ["BlackmagicRawAPI_h.h does not compile", "HRESLUT"]),
        ]
        for changes, expected in cases:
            with self.subTest(expected[0]):
                foreign.write(SEED, "midl", self.folder)
                header = self.folder / "BlackmagicRawAPI_h.h"
                for change in changes:
                    header.write_text(change(header.read_text()))
                status, said = read(self.folder, self.output)
                self.assertEqual(1, status)
                for text in expected:
                    self.assertIn(text, said)
                self.assertTrue(all(line.startswith(f"{self.folder}: ") for line in said.splitlines()), said)
                self.assertFalse(self.output.exists())

    def test_what_is_no_declaration_gets_one_line(self):
        foreign.write(SEED, "idl", self.folder / "broken")
        idl = self.folder / "broken" / "BlackmagicRawAPI.idl"
        idl.write_text(idl.read_text().replace("interface IBlackmagicRawJob;", "interface ;"))
        (self.folder / "empty").mkdir()
        for name, expected in (("missing", "no such folder"), ("empty", "no header and no IDL file in it"),
                               ("broken", "BlackmagicRawAPI.idl is no IDL that can be read: ")):
            status, said = read(self.folder / name, self.output)
            self.assertEqual((1, 1), (status, said.count("\n")), said)
            self.assertTrue(said.startswith(f"{self.folder / name}: {expected}"), said)

    # What the maker calls otherwise than we do is said in a file; what we know of constants is used without one.
    def test_other_names_and_lacking_constants(self):
        foreign.write(SEED, "separate", self.folder)
        header = self.folder / "BlackmagicRawAPI.h"
        header.write_text(header.read_text().replace("SetVerticalFlip", "SetFlipY").replace(
            "#define blackmagicRawGeometryMetadata", "#define meta").replace("blackmagicRawInteropNone 1852796517", "blackmagicRawInteropNone 7"))
        self.assertIn("IBlackmagicRawClipGeometry lacks SetVerticalFlip", read(self.folder, self.output)[1])
        (self.folder / "clipforge-names.txt").write_text("IBlackmagicRawClipGeometry::SetVerticalFlip = SetFlipY\n")
        status, said = read(self.folder, self.output)
        self.assertEqual((0, 2), (status, said.count("note: ")), said)
        text = self.output.read_text()
        self.assertIn("blackmagicRawGeometryMetadata = 0x6D657461;", text)
        self.assertIn("blackmagicRawInteropNone = 0x00000007;", text)
        self.assertIn("SetVerticalFlip(", text)


if __name__ == "__main__":
    unittest.main()
