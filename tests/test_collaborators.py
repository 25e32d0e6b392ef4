"""What carries prose: sections and page texts, whatever people make of them."""

from hypothesis import given
from hypothesis import strategies as st

from quillstone.workers.wiki import replan_carry as carry
from quillstone.workers.wiki.authoring import page_text
from quillstone.workers.wiki.page_files import leaves
from quillstone.workers.wiki.replan_carry import CARRIED, GENERATED, PageText, carried_sections, split_carried

# Markers, whole sections, what people make of them, and a section that is pasted into another.
HELD = carried_sections([("Old", "held"), ("Older", "    held too\n\n# T")])
LINES = [f"<!-- {slash}{kind} {'0' * 16} -->" for slash in ("", "/") for kind in (CARRIED, GENERATED)]
LINES += [*HELD, *HELD[0].split("\n"), HELD[1].replace("\n# T", f"\n{HELD[0]}\n\n# T")]
LINES += [
    carry.make_block(GENERATED, "Files: 1\n- a", heading="# U"),
    "# T",
    "- `a.py`",
    "x",
    "    code",
    "",
    "ü \u2028\x0b",
    "\ufeff",
]
texts = st.lists(st.sampled_from(LINES)).map("\n".join)
pages = st.lists(st.tuples(st.sampled_from(["T", "U", "a\nb"]), texts), max_size=4)


def lines(*pieces):
    """All lines that say something; a marker of a block that was cut is none of a person's."""
    said = (line for piece in pieces for line in piece.split("\n") if line.strip("\ufeff "))
    return {line for line in said if f"{GENERATED} 0" not in line}


@given(texts, pages)
def test_sections_hold_all_prose_and_are_carried_once_however_often(text, merged):
    sections, (own, held) = carried_sections([("Blank", " \n\n "), *merged]), split_carried(text)
    once = carry.with_carried(text, iter(sections))
    assert carry.with_carried(once, sections[::-1]) == once and once.startswith(text.rstrip("\n"))
    assert split_carried(once) == (own, held + [section for section in sections if section not in held])
    assert lines(*(prose for _, prose in merged)) <= lines(*sections) and "Blank" not in "".join(sections)
    edited = "\n".join(sections).replace("\n<!-- /", " edited\n<!-- /")
    for end in ("\n", "\r", "\r\n"):
        assert carried_sections([("T", carry.with_carried("", sections).replace("\n", end))]) == sections
        assert lines(edited) <= lines(*carried_sections([("T", edited.replace("\n", end))]))


@given(texts, st.integers(0, 60), st.sampled_from([None, "Mine"]))
def test_what_people_write_on_a_page_is_theirs_wherever_it_stands(prose, where, title):
    generated = "Source files: 1\n- `a.py`\n\nWhat a README says."
    text, row = page_text("T", PageText(title, prose), generated), {"build_cache": {GENERATED: generated}}
    page = carry.read_page("\ufeff" + text, row)
    assert page.title == title and lines(page.prose) == lines(prose) and page == carry.read_page(text, row)
    changed = "\n".join([*text.split("\n")[:where], "by hand", *text.split("\n")[where:]])
    page = carry.read_page(changed, row)
    again = page_text("T", page, generated)
    assert lines(prose, "by hand") <= lines(again) and again.count(generated) == 1
    assert carry.read_page(again, row) == page and not leaves(changed, [again])


def test_a_thousand_sections_pasted_into_each_other_take_no_time():
    text = ""
    for number in range(1200):
        text = carry.make_block(CARRIED, f"## {number}\n\nprose").replace("\n\n", f"\n\n{text}\n\n")
    assert lines(text) <= lines(*carried_sections([("T", text)]))
