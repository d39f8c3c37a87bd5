"""What the documents have somebody type is there: scripts with their words, options of the programs, presets, links.
And the version is the same wherever it is told.

documents_test.py SOURCE_DIR PROGRAMS
"""

import glob
import json
import os
import re
import shlex
import subprocess
import sys

ROOT, PROGRAMS = map(os.path.abspath, sys.argv[1:])
ELSEWHERE = {"apt-get", "cp", "gcc", "journalctl", "systemctl"}  # which a script of ours does not stand behind
WRAPPERS = {"unshare"}  # run what follows their options
# Commands of keelctl that do something, or wait, also without a host, or take values that a document only names.
DOERS = {"capture", "diagnose", "export", "help", "import", "timeline", "top"}
complaints = []


def read(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        return file.read()


def printed(program, *words):
    done = subprocess.run((os.path.join(PROGRAMS, program), *words), capture_output=True, text=True, timeout=10,
                          check=False)
    return done.returncode, done.stdout + done.stderr


def block_commands(text):
    """The lines of the fenced blocks of commands: no picture, no transcript, no other language. What a line does stands
    behind it, after two blanks."""
    for language, block in re.findall(r"^```([^\n]*)\n(.*?)^```$", text, re.S | re.M):
        lines = block.replace("\\\n", "").splitlines()
        if not language and not any(line[:1] == " " or "─" in line for line in lines):
            yield from (re.split(r"  +", line)[0] for line in lines if line)


def inline_commands(text):
    """Commands in the running text: our scripts, and our programs when more than their name is told."""
    text = re.sub(r"^```.*?^```$", "", text, flags=re.S | re.M)
    ours = re.compile(r"(keelctl|keelhost|tests/\S+\.sh) |script/")
    return [one for one in re.findall(r"`([^`]+)`", text) if ours.match(one)]


def knows(source, word):
    return re.search(rf"(?<![\w-]){re.escape(word)}(?![\w-])", source)


def check_script(script, words):
    if not os.access(os.path.join(ROOT, script), os.X_OK):
        return "no such script"
    source = read(script)
    for other in re.findall(r"[\w/]+\.py", source):  # which takes the script's options over
        if os.path.exists(os.path.join(ROOT, other)):
            source += read(other)
    for word in words:
        # These tell their first word apart; other words are names that somebody chooses.
        fixed = word.startswith("--") or script in ("script/build", "script/bootstrap") and word == words[0]
        if fixed and not knows(source, word):
            return f"it does not know {word}"
    return None


def check_keelctl(words):
    words = [word.strip("[]") for word in words if word != "..."]
    command = next((word for word in words if not word.startswith("-")), "")
    if command in DOERS:
        return check_options("keelctl", words, command)
    status, said = printed("keelctl", "--socket", "/nonexistent/socket", *words)
    if len(words) == 1 and "is required" in said:  # a command that is named alone
        return None
    return None if status == 2 or not words else f"it is not understood: {said.strip()}"


def check_options(program, words, *command):
    known = printed(program, "--help")[1] + printed(program, *command, "--help")[1]  # those of the program count there, too
    unknown = [word for word in words if word.startswith("-") and not knows(known, word)]
    return f"it has no option {unknown[0]}" if unknown else None


def check_cmake(words):
    presets = json.loads(read("CMakePresets.json"))
    kind = "workflowPresets" if "--workflow" in words else "configurePresets"
    if "--preset" in words:
        name = words[words.index("--preset") + 1]
        if name not in [preset["name"] for preset in presets[kind]]:
            return f"no preset {name}"
    variables = [word[2:].split("=")[0] for word in words if word.startswith("-DZEPHYRIN_")]
    files = ["CMakeLists.txt", *glob.glob("cmake/**/*.cmake", root_dir=ROOT, recursive=True)]
    unknown = [name for name in variables if not any(knows(read(path), name) for path in files)]
    return f"no variable {unknown[0]}" if unknown else None


def check(command):
    """What is wrong with one command, or None."""
    words = [word for word in shlex.split(command.replace("$(", "").replace(")", "")) if word != "&"]
    while words and re.match(r"[A-Z_]+=", words[0]):
        words.pop(0)
    if words and words[0] in WRAPPERS:
        words = words[next(at for at, word in enumerate(words) if at and not word.startswith("-")):]
    program, *rest = words
    if program == "keelctl":
        if "--socket" in rest:
            at = rest.index("--socket")
            rest = rest[:at] + rest[at + 2:]
        return check_keelctl(rest)
    if program == "keelhost":
        return check_options(program, rest)
    if program in ("cmake", "ctest"):
        return check_cmake(rest)
    if program.startswith(("script/", "tests/")):
        return check_script(program, rest)
    if re.match(r"build/\w+/\w+_(test|fuzz)$", program):
        name = os.path.basename(program)
        folder = "tests/fuzz" if name.endswith("_fuzz") else "tests"
        return None if os.path.exists(os.path.join(ROOT, folder, f"{name}.cpp")) else "no such program"
    return None if program in ELSEWHERE else "this test does not know that program"


def check_documents():
    checked = 0
    for path in ["README.md", "CONTRIBUTING.md", *sorted(glob.glob("docs/*.md", root_dir=ROOT))]:
        text = read(path)
        for line in (*block_commands(text), *inline_commands(text)):
            for command in line.split("&&"):
                checked += 1
                wrong = check(command)
                if wrong:
                    complaints.append(f"{path}: {command.strip()}: {wrong}")
        for link in re.findall(r"\]\(([^):#]+)\)", text):
            if not os.path.exists(os.path.join(ROOT, os.path.dirname(path), link)):
                complaints.append(f"{path}: the link to {link} leads nowhere")
    if checked < 30:
        complaints.append(f"only {checked} commands were found in the documents: this test looks in the wrong places")


def check_version():
    version = re.search(r"^project\(zephyrin VERSION (\S+)", read("CMakeLists.txt"), re.M)[1]
    told = {program: printed(program, "--version")[1].split()[-1] for program in ("keelhost", "keelctl")}
    told["CHANGELOG.md"] = re.search(r"^## (\S+)", read("CHANGELOG.md"), re.M)[1]
    told["debian/changelog"] = re.match(r"zephyrin \((\S+)\)", read("debian/changelog"))[1]
    complaints.extend(f"{name} tells version {one}, CMakeLists.txt {version}"
                      for name, one in told.items() if one != version)


check_documents()
check_version()
print("\n".join(complaints))
sys.exit(1 if complaints else 0)
