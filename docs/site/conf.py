# Sphinx's settings for the documentation site; scripts/build-docs writes what it renders, and calls it.
import json
import os
import re
from pathlib import Path

from docutils import nodes

site = Path(os.environ["TERN_SITE"])
project = "libtern-dbus-service"
release = version = os.environ["TERN_SITE_VERSION"]
root_doc = "index"
extensions = ["myst_parser", "breathe"]
myst_heading_anchors = 4
breathe_projects = {"tern": str(site / "xml")}
breathe_default_project = "tern"
breathe_show_include = False
breathe_default_members = ("members", "protected-members", "undoc-members")
html_theme = "furo"
html_title = f"libtern-dbus-service {release}"
html_static_path = [str(Path(__file__).parent / "static")]
html_css_files = ["tern.css"]
html_copy_source = False
# Summaries are fetched, which a browser refuses a page that comes from a file.
html_show_search_summary = False
html_show_copyright = False
html_use_index = False
# The same pages come of the same sources.
html_last_updated_fmt = None
pygments_style = "friendly"
pygments_dark_style = "monokai"
highlight_language = "none"

names = json.loads((site / "names.json").read_text())


def link_names(app, doctree, page):
    """A class, a member or a header in code marks leads to its place in the reference."""
    for literal in list(doctree.findall(nodes.literal)):
        if isinstance(literal.parent, (nodes.reference, nodes.title)):
            continue
        name = literal.astext().removesuffix("()")
        target, place = names.get(name, ("", ""))
        if not target or target == page:
            continue
        link = nodes.reference("", "", internal=True, refuri=app.builder.get_relative_uri(page, target)
                               + (f"#{place}" if place else ""))
        literal.replace_self(link)
        link += literal


def make_theme_whole(app, failure):
    """Debian's theme counts on a web server for a style sheet, and on script modules, which a browser does not load from a
    file. What it would fetch is put where it is needed."""
    if failure:
        return
    static = Path(app.outdir) / "_static"
    script = static / "scripts/furo.js"
    # Debian 12's imports one name of it, Debian 13's all.
    text, imports = re.subn(r'\Aimport (\* as )?Gumshoe from "./gumshoe-patched.js";\n', "", script.read_text())
    if imports:
        script.write_text((static / "scripts/gumshoe-patched.js").read_text() + text)
    for page in Path(app.outdir).rglob("*.html"):
        text = page.read_text()
        if '<script type="module" src=' in text:
            page.write_text(text.replace('<script type="module" src=', "<script defer src="))
    sheet = static / "styles/furo.css"
    # The second is what Debian testing's imports: a name for a bundler, which no browser finds.
    text, imported = re.subn(r'\A@import (url\(/javascript/normalize.css/normalize.css\)|"~normalize.css");', "", sheet.read_text())
    if imported:
        sheet.write_text(Path("/usr/share/javascript/normalize.css/normalize.css").read_text() + text)


def setup(app):
    app.connect("build-finished", make_theme_whole)
    app.connect("doctree-resolved", link_names)
