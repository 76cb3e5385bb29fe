"""The model and the generator on cases made by hand. Run from the folder above:

    python3 -m unittest discover --start-directory self_test --top-level-directory .
"""
