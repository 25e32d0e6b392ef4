"""What carries prose: sections and page texts, whatever people make of them."""

from functools import reduce

from hypothesis import example, given, settings
from hypothesis import strategies as st

from quillstone.workers.wiki import replan_carry as carry
from quillstone.workers.wiki.authoring import page_text
from quillstone.workers.wiki.replan_carry import CARRIED, GENERATED, carried_sections, leaves, split_carried

# Markers, whole sections, what people make of them, and a section that is pasted into another.
HELD = carried_sections([("Old", "held"), ("Older", "    held too\n\n# T")])
BLOCK = carry.make_block(GENERATED, "Files: 1\n- a", heading="# U")
LINES = [f"<!-- {slash}{kind} {'0' * 16} -->" for slash in ("", "/") for kind in (CARRIED, GENERATED)]
LINES += [*HELD, *HELD[0].split("\n"), HELD[1].replace("\n# T", f"\n{HELD[0]}\n\n# T")]
LINES += [BLOCK, "# T", "- `a.py`", "x", "    code", "", "ü \u2028\x0b", "\ufeff"]
NESTED = reduce(lambda text, n: carry.make_block(CARRIED, f"## {n}\n\n{text}\n\nprose"), range(1200), "")
texts = st.lists(st.sampled_from(LINES)).map("\n".join)
pages = st.lists(st.tuples(st.sampled_from(["T", "U", "a\nb"]), texts), max_size=4)
calm = settings(deadline=None)


def lines(*pieces):
    """All lines that say something; markers of generated blocks are no person's."""
    said = (line for piece in pieces for line in piece.split("\n") if line.strip("\ufeff "))
    return {line for line in said if f"{GENERATED} " not in line}


@calm
@given(texts, pages)
@example("", [("T", NESTED)])
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


@calm
@given(texts, st.integers(0, 60), st.sampled_from([None, "Mine"]))
def test_what_people_write_on_a_page_is_theirs_wherever_it_stands(prose, where, title):
    generated = "Source files: 1\n- `a.py`\n\nWhat a README says."
    text = page_text("T", carry.PageText(title, prose), generated).split("\n")
    row = {"build_cache": {GENERATED: generated}}
    for written in ([], ["by hand"]):
        page = carry.read_page(changed := "\n".join([*text[:where], *written, *text[where:]]), row)
        again = page_text("T", page, generated)
        assert lines(prose, *written) <= lines(again) and again.count(generated) == 1
        assert carry.read_page(f"\ufeff{again}", row) == page and not leaves(changed, [again])
        assert leaves(f"{changed}\nonly here", [again])
        assert written or (page.title == title and lines(page.prose) == lines(prose))
