#!/usr/bin/env python3
"""Relative links in the tree's Markdown lead to files that exist, and their anchors to headings that are there."""
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
FENCE = re.compile(r"^```.*?^```$", re.M | re.S)
LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)|^\[[^\]]+\]: (\S+)", re.M)


def anchors(path):
    """Names of the headings as web views make them: letters, digits, hyphens, underscores; repeated ones numbered."""
    found = set()
    for heading in re.findall(r"^#+ +(.+?) *$", FENCE.sub("", path.read_text()), re.M):
        text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading).lower()
        name = re.sub(r"[^\w\- ]", "", text).replace(" ", "-")
        number = sum(1 for other in found if re.fullmatch(re.escape(name) + r"(-\d+)?", other))
        found.add(f"{name}-{number}" if number else name)
    return found | set(re.findall(r'<a (?:id|name)="([^"]+)"', path.read_text()))


def mistakes(path):
    for match in LINK.finditer(FENCE.sub(lambda fence: "\n" * fence[0].count("\n"), path.read_text())):
        link = match[1] or match[2]
        if re.match(r"[a-z]+:", link):
            continue
        file, _, anchor = link.partition("#")
        target = (path.parent / file).resolve() if file else path
        if not target.exists():
            yield f"{path.relative_to(ROOT)}: {link}: no such file"
        elif anchor and target.suffix == ".md" and anchor not in anchors(target):
            yield f"{path.relative_to(ROOT)}: {link}: no such heading"


listed = ""
if shutil.which("git"):
    listed = subprocess.run(["git", "-C", ROOT, "ls-files", "-co", "--exclude-standard", "*.md"], capture_output=True, text=True).stdout
pages = [ROOT / name for name in listed.split()] or [*ROOT.glob("*.md"), *ROOT.glob("docs/**/*.md")]
found = [mistake for page in pages if page.exists() for mistake in mistakes(page)]
print(*found or [f"links of {len(pages)} pages lead somewhere"], sep="\n")
sys.exit(bool(found))
