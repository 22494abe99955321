#!/usr/bin/python3
"""What the documents say, held against what is: their listings compile, links lead somewhere, and
errors, settings and what is sent are all named.

    documents_test.py SERVICE QUICKSTART BUILD
"""

import json
import os
import re
import sqlite3
import subprocess
import sys
import tempfile
import unittest
import urllib.request
from pathlib import Path

SERVICE, QUICKSTART, BUILD = sys.argv[1:4]
SOURCE = Path(__file__).resolve().parent.parent
DOCUMENTS = {path: path.read_text() for path in sorted((*SOURCE.glob("*.md"), *SOURCE.glob("docs/*.md")))}
PRELUDE = "#include <QuorvaSDK/QuorvaSDK.h>\nusing namespace quorva;\n"


def run(*command, **more):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=300, check=False, **more)
    assert done.returncode == 0, "%s\n%s" % (" ".join(map(str, command)), done.stdout)
    return done.stdout


def listings(path, language):
    """Each with the number of its first line."""
    text = DOCUMENTS[path]
    for found in re.finditer(r"^```%s\n(.*?)^```$" % language, text, re.M | re.S):
        yield text.count("\n", 0, found.start()) + 2, found[1]


def table(path, head):
    """The names in the first column of each table whose head is that."""
    for found in re.finditer(r"^\| %s \|.*\n\|[-|]+\|\n((?:\|.*\n)+)" % re.escape(head),
                             DOCUMENTS[path], re.M):
        yield {name for row in found[1].splitlines()
               for name in re.findall(r"`([^`]+)`", row.split("|")[1])}


def keys(values):
    """Those of an object, and of the objects in it below the name of each."""
    found = {"": set(values)}
    for name, value in values.items():
        if isinstance(value, dict):
            found[name] = set(value)
    return found


class Documents(unittest.TestCase):
    def test_listings_compile(self):
        fragments, programs = [], []
        for path in DOCUMENTS:
            for line, code in listings(path, "cpp"):
                mark = '#line %d "%s"\n' % (line, path)
                if "int main(" in code:
                    programs.append(mark + code)
                else:
                    # Its headers outside, and the rest in a namespace of its own.
                    headers = "".join(re.findall(r"^#include.*\n", code, re.M))
                    body = re.sub(r"^#include.*$", "", code, flags=re.M)
                    fragments.append("%s%snamespace listing%d {\n%s%s}\n" % (
                        headers, PRELUDE, len(fragments), mark, body))
        self.assertGreater(len(fragments), 8)
        for unit in programs + ["".join(fragments)]:
            run("g++", "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Werror",
                "-Wno-subobject-linkage",  # of what #line says is in a header
                "-I", SOURCE, "-x", "c++", "-", input=unit)

    def test_projects_find_the_library(self):
        with tempfile.TemporaryDirectory() as folder:
            run("cmake", "--install", BUILD, "--prefix", folder + "/prefix", "--component", "development")
            (Path(folder) / "app.cpp").write_text("int main() {}\n")
            (Path(folder) / "QuorvaSDK").symlink_to(SOURCE)
            found = 0
            for path in DOCUMENTS:
                for _, code in listings(path, "cmake"):
                    if "project(" in code:
                        continue  # a whole one, that the test of the package builds
                    (Path(folder) / "CMakeLists.txt").write_text(
                        "cmake_minimum_required(VERSION 3.25)\nproject(listing LANGUAGES CXX)\n"
                        "add_executable(app app.cpp)\n" + code)
                    run("cmake", "-S", folder, "-B", "%s/build%d" % (folder, found), "-G", "Ninja",
                        "-DCMAKE_PREFIX_PATH=%s/prefix" % folder,
                        "-DFETCHCONTENT_SOURCE_DIR_QUORVASDK=%s" % SOURCE)
                    found += 1
            self.assertGreater(found, 3)

    def test_links_lead_somewhere(self):
        for path, text in DOCUMENTS.items():
            text = re.sub(r"^```.*?^```", "", text, flags=re.M | re.S)
            for target in (re.findall(r"\]\(([^):]+)\)", text) +
                           re.findall(r'src(?:set)?="([^":]+)"', text)):
                self.assertTrue((path.parent / target).exists(), "%s: %s" % (path.name, target))

    def test_every_error_is_named(self):
        def code(name):
            return re.sub(r'"\s+"', "", (SOURCE / name).read_text())

        path = SOURCE / "docs/errors.md"
        found = dict(re.findall(r'case (\w+):[^"]*"([^"]+?) ?"', code("QuorvaSDK/QuorvaError.cpp")))
        numbers = dict(re.findall(r"(\w+) = (-\d+),", code("platform/URLError.h")))
        transport = dict(re.findall(r'Row\{(\w+),\s*"([^"]+)"', code("platform/URLError.cpp")))
        kinds = re.findall(r"^    (\w+), +///<", code("platform/JSON.h"), re.M)
        texts = re.findall(r'"(The data [^"]+)"', code("platform/JSON.cpp"))
        self.assertEqual(transport.keys(), numbers.keys())
        self.assertEqual([found.keys(), transport.keys()], [*table(path, "case"), *table(path, "code")])
        for row in ([("`%s`" % case, said) for case, said in found.items()] +
                    [("`%s` %s" % (case, numbers[case]), said) for case, said in transport.items()]):
            self.assertIn("\n| %s | %s" % row, DOCUMENTS[path])
        errors, = table(path, "error")
        self.assertEqual({"DecodingError", "EncodingError", "kind", *kinds}, errors)
        for said in texts:
            self.assertIn("| %s |" % said, DOCUMENTS[path])
        logged = {said for file in SOURCE.glob("QuorvaSDK/*.cpp")
                  for said in re.findall(r'QVLogger::log\(LogLevel::\w+,\s*"([^"]+)"', file.read_text())}
        lines, = table(path, "line")
        self.assertEqual(logged, {line.removesuffix("…") for line in lines})

    def test_what_is_stored_and_sent_is_named(self):
        with tempfile.TemporaryDirectory() as folder:
            service = subprocess.Popen([SERVICE, "--state", folder + "/state", "--print-ready"],
                                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            try:
                ready = json.loads(service.stdout.readline())
                run(QUICKSTART, "--port", ready["service"].rsplit(":")[-1], "--ca", ready["ca"],
                    env={**os.environ, "XDG_DATA_HOME": folder + "/data"})
                with urllib.request.urlopen(ready["page"] + "api/requests") as answer:
                    requests = json.load(answer)
            finally:
                service.terminate()
                service.communicate()
            settings, = Path(folder).glob("data/quorva/*.sqlite")
            with sqlite3.connect(settings) as file:
                stored = {key for key, in file.execute("SELECT key FROM settings")}

        path = SOURCE / "docs/settings-and-privacy.md"
        self.assertEqual([stored], list(table(path, "key")))
        sent = {request["endpoint"]: keys(request["sent"]) for request in requests}
        identity, ping, link, resolve, deferred = table(path, "field")
        data, = table(path, "field of `data`")
        info, = table(path, "field of `device_info`")
        self.assertEqual(sent["retrieveDeviceId"], {"": identity, "data": data})
        self.assertEqual(sent["device_ping"], {"": ping, "device_info": info})
        self.assertEqual(sent["resolve"], {"": resolve})
        self.assertEqual(sent["getAnyDeferredDeeplinks"], {"": deferred})
        # The quick start sets a part of them.
        self.assertLess(sent["create_link"][""], link)
        builder = (SOURCE / "QuorvaSDK/QVDynamicLinkBuilder.cpp").read_text()
        self.assertEqual(set(re.findall(r'CodingKey\{"(\w+)"', builder)), link)
        self.assertEqual(len(sent), 5)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
