"""The entry of `quillstone-wiki`."""

import signal


def main() -> None:
    """Run the command line; until all is loaded there is nothing to take back, so Ctrl-C just ends it."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    from quillstone.wiki_cli.app import app

    app(prog_name="quillstone-wiki")


if __name__ == "__main__":
    main()
