"""Tells right from wrong: python3 -m jobmill.check simulator, master or daemon. See docs/python.md."""
