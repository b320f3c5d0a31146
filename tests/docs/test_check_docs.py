#!/usr/bin/python3
"""The documentation check finds what it is for - a link to a missing file, a
link to a heading that is not there, a README grown too long - and passes
links that work, links to the web and text inside code."""
from __future__ import annotations

import sys
import tempfile
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import check_docs  # noqa: E402


class CheckoutTest(unittest.TestCase):
    def setUp(self):
        self._folder = tempfile.TemporaryDirectory()
        self.root = Path(self._folder.name)
        (self.root / "docs").mkdir()
        (self.root / "docs" / "guide.md").write_text(
            "# Guide\n\nBack to the [README](../README.md).\n\n## Several classes in one model\n\n"
            "### `detect` over folders, videos and lists\n\n## Notes\n\n## Notes\n", encoding="utf-8")
        (self.root / "docs" / "picture.png").write_bytes(b"\x89PNG")

    def tearDown(self):
        self._folder.cleanup()

    def readme(self, text: str):
        (self.root / "README.md").write_text(text, encoding="utf-8")

    def test_links_that_lead_somewhere_pass(self):
        self.readme("# Title\n\n[Guide](docs/guide.md), ![a picture](docs/picture.png),\n"
                    "[classes](docs/guide.md#several-classes-in-one-model), [up](#title),\n"
                    "[detect](docs/guide.md#detect-over-folders-videos-and-lists), [again](docs/guide.md#notes-1),\n"
                    "[web](https://example.org/missing.md), <img src=\"docs/picture.png\">\n\n[ref]: docs/guide.md\n")
        self.assertEqual(check_docs.check(self.root), [])

    def test_a_link_to_a_missing_file_is_named_with_its_line(self):
        self.readme("# Title\n\nSee [install](docs/install.md).\n")
        self.assertEqual(check_docs.check(self.root),
                         ["README.md:3: link to 'docs/install.md': no such file"])

    def test_a_missing_picture_and_a_missing_reference_target_are_found(self):
        self.readme("# Title\n\n![shot](docs/shot.png)\n\n[ref]: docs/gone.md\n")
        problems = check_docs.check(self.root)
        self.assertEqual(len(problems), 2, problems)
        self.assertIn("docs/shot.png", problems[0])
        self.assertIn("docs/gone.md", problems[1])

    def test_a_link_to_a_missing_heading_is_found_in_a_doc_and_in_the_same_file(self):
        self.readme("# Title\n\n[a](docs/guide.md#windows) [b](#quick-start)\n")
        problems = check_docs.check(self.root)
        self.assertEqual(problems, ["README.md:3: link to 'docs/guide.md#windows': guide.md has no heading '#windows'",
                                    "README.md:3: link to '#quick-start': README.md has no heading '#quick-start'"])

    def test_links_in_docs_are_taken_from_the_doc_s_own_folder(self):
        self.readme("# Title\n")
        (self.root / "docs" / "other.md").write_text("# Other\n\n[README](README.md)\n", encoding="utf-8")
        self.assertEqual(check_docs.check(self.root),
                         ["docs/other.md:3: link to 'README.md': no such file"])

    def test_text_in_code_is_not_a_link(self):
        self.readme("# Title\n\n```md\n[no](missing.md)\n```\n\nInline `[no](missing.md)` too.\n")
        self.assertEqual(check_docs.check(self.root), [])

    def test_the_readme_must_stay_under_250_lines(self):
        self.readme("# Title\n" + "line\n" * (check_docs.README_MAX_LINES - 1))
        self.assertEqual(check_docs.check(self.root), [])
        self.readme("# Title\n" + "line\n" * check_docs.README_MAX_LINES)
        problems = check_docs.check(self.root)
        self.assertEqual(len(problems), 1)
        self.assertIn("README.md: 250 lines", problems[0])

    def test_heading_anchors_drop_punctuation_and_code_marks(self):
        self.assertEqual(check_docs.heading_anchor("`detect` over folders, videos and lists"),
                         "detect-over-folders-videos-and-lists")
        self.assertEqual(check_docs.heading_anchor("Threads and the log handler"), "threads-and-the-log-handler")
        self.assertEqual(check_docs.heading_anchor("JSON interface (HTTP)"), "json-interface-http")


if __name__ == "__main__":
    unittest.main()
