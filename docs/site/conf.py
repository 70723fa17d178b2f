# Settings of the generator, Sphinx. Pages, navigation and version are laid out by build.py.
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent))

project = "Tessera"
extensions = ["myst_parser", "sphinx_copybutton", "diagrams"]
source_suffix = {".md": "markdown"}
root_doc = "index"
myst_enable_extensions = ["fieldlist"]
myst_heading_anchors = 4
highlight_language = "text"
copybutton_prompt_text = "$ "
copybutton_line_continuation_character = "\\"
nitpick_ignore_regex = [("c:identifier", r"u?int\d+_t|size_t|va_list")]
nitpicky = True
smartquotes = False  # names and options stay as they are typed

html_theme = "furo"
html_title = "Tessera"
html_favicon = "icon.svg"
html_static_path = ["style.css"]
html_css_files = ["style.css"]
html_use_index = False  # the search finds names as well, and fits on a phone
html_show_sourcelink = False
html_copy_source = False
html_show_copyright = False
# The words around a hit would be fetched from its page, which pages opened from a disk may not.
html_show_search_summary = False
html_theme_options = {"navigation_with_keys": True}
