# SPDX-License-Identifier: Apache-2.0
# Directory caches in a machine.


def configuration(identifier, directory, user, others_may_write="NO", **keys):
    """Of a cache all of whose files may go at once, with more keys and what they say."""
    more = " ".join(f"{key} = {value};" for key, value in keys.items())
    return (f'{{ Identifier = "{identifier}"; User = "{user}"; {more} Directories = ({{ Path = "{directory}"; '
            f'Ages = (0, 0, 0, 0); MinimumAge = (0, 0, 0, 0); OthersMayWrite = {others_may_write}; }}); }}')
