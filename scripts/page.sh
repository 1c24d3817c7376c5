#!/usr/bin/env bash
# page.sh install|chrome|firefox [FILE...]: tries the page in a browser, with what lies in build/linux;
# Firefox takes the main roads only. LUMATIE_PAGE_LONG=1 asks for the long forms.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

engine=${1-}
case $engine in
    install | chrome) files=(tests/page/*.test.mjs) ;;
    firefox) files=(tests/page/{roads,studio}.test.mjs) ;;
    *) usage_error "scripts/page.sh install|chrome|firefox [FILE...]" ;;
esac
(($# < 2)) || files=("${@:2}")

need_packages chromium firefox-esr mosquitto
need_node_tools
need_page_python
[[ $engine != install ]] || exit 0

export LUMATIE_PAGE_PYTHON=$tools/page/bin/python LUMATIE_PAGE_ENGINE=$engine
# They wait more than they work. A browser that nobody closed would keep them for ever.
exec timeout --kill-after=10 "${LUMATIE_PAGE_LONG:+4}500" \
    node --test --test-concurrency=2 --test-reporter=spec "${files[@]}"
