"""The tether page: a web server beside the session, for those who shoot and those who look.

It needs the extra `page` (aiohttp, Pillow, segno), which nothing else of the package does.
"""
