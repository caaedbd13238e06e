# The browser and HTTP side of tests/e2e/view_test.sh: headless chromium
# (Debian's, through chromedriver and selenium) on the page kelvorn-chain
# view serves for a simulated board, and plain HTTP clients on its API.
# Each command prints what it saw, one fact a line, for the shell to compare.
#
#   view_browser.py page URL PROFILE        the drawings, levels, live updates, search
#   view_browser.py drive URL PROFILE       drive from the pin panel in two tabs, release all
#   view_browser.py forbidden URL           requests outside the token
#   view_browser.py stress URL              100 event streams at once, 1000 malformed requests
#   view_browser.py screenshot URL PROFILE FILE
import json
import socket
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
import urllib.error
import urllib.parse
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

GIVE_UP = 30  # seconds: a generous limit so that a broken page ends the test


def browser(profile):
    options = webdriver.ChromeOptions()
    for a in ('--headless=new', '--no-sandbox', '--disable-gpu', '--window-size=1280,800',
              '--user-data-dir=' + profile):
        options.add_argument(a)
    options.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
    return webdriver.Chrome(service=Service('/usr/bin/chromedriver'), options=options)


def wait(driver, condition, what):
    try:
        return WebDriverWait(driver, GIVE_UP, poll_frequency=0.05).until(lambda d: condition())
    except Exception:
        print(f'gave up waiting: {what}')
        return None


def pin(driver, position, port):
    return driver.find_element(By.CSS_SELECTOR, f'.pin[data-position="{position}"][data-port="{port}"]')


def css(driver, selector):
    return driver.find_elements(By.CSS_SELECTOR, selector)


def has(e, cls):
    return cls in e.get_attribute('class').split()


def level(e):
    return e.get_attribute('data-level')


def names(elements, key='port'):  # "position.port" (or .pin) of each
    return [f'{e.get_attribute("data-position")}.{e.get_attribute("data-" + key)}' for e in elements]


def get_json(url):
    with urllib.request.urlopen(url, timeout=GIVE_UP) as r:
        return json.load(r)


def open_page(driver, url):
    driver.get(url)
    # Drawn and fed: every drawn pin has had its first levels event.
    wait(driver, lambda: driver.execute_script(
        "return document.getElementById('conn').textContent === 'live' && "
        "document.querySelectorAll('.pin').length > 0 && state.clock.at > 0"), 'the page drawn and live')


def console_errors(driver):
    return [e['message'] for e in driver.get_log('browser') if e['level'] == 'SEVERE']


# Which side of the package body each quad pin sits on, and the order of the
# numbers along it as seen from above.
def quad_layout(driver, position):
    body = driver.find_element(By.CSS_SELECTOR, f'.device[data-position="{position}"] .quad .body').rect
    sides = {'left': [], 'bottom': [], 'right': [], 'top': []}
    for e in driver.find_elements(By.CSS_SELECTOR, f'.pin[data-position="{position}"]'):
        r = e.rect
        cx, cy = r['x'] + r['width'] / 2, r['y'] + r['height'] / 2
        side = ('left' if cx < body['x'] else 'right' if cx > body['x'] + body['width'] else
                'top' if cy < body['y'] else 'bottom' if cy > body['y'] + body['height'] else 'inside')
        sides.setdefault(side, []).append((int(e.get_attribute('data-pin')), cx, cy))
    out = []
    for side, along in (('left', lambda p: p[2]), ('bottom', lambda p: p[1]),
                        ('right', lambda p: -p[2]), ('top', lambda p: -p[1])):
        numbers = [p[0] for p in sorted(sides[side], key=along)]
        out.append(f'{side} ' + ','.join(map(str, numbers)))
    if sides.get('inside'):
        out.append('inside ' + ','.join(str(p[0]) for p in sides['inside']))
    return '; '.join(out)


# Balls whose centre is not under their column label and beside their row label.
def grid_misplaced(driver, position):
    labels = driver.find_elements(By.CSS_SELECTOR, f'.device[data-position="{position}"] .glabel')
    centre = {e.text: (e.rect['x'] + e.rect['width'] / 2, e.rect['y'] + e.rect['height'] / 2) for e in labels}
    wrong = []
    for e in driver.find_elements(By.CSS_SELECTOR, f'.pin[data-position="{position}"]'):
        name, r = e.get_attribute('data-pin'), e.rect
        cx, cy = r['x'] + r['width'] / 2, r['y'] + r['height'] / 2
        row, column = centre.get(name[0]), centre.get(name[1:])
        if not row or not column or abs(cy - row[1]) > 2 or abs(cx - column[0]) > 2:
            wrong.append(name)
    return ','.join(wrong) or 'none'


def page(url, profile, fixed, wave):
    fixed_pos, fixed_port = fixed.split('.', 1)
    wave_pos, wave_port = wave.split('.', 1)
    d = browser(profile)
    try:
        open_page(d, url)
        for row in css(d, '#chain tbody tr'):
            print('chain:', ' | '.join(c.text for c in row.find_elements(By.TAG_NAME, 'td')))
        for section in css(d, '.device'):
            pins = css(section, '.pin')
            print(f'device {section.get_attribute("data-position")}: {len(pins)} pins, '
                  f'{len(set(p.get_attribute("data-pin") for p in pins))} distinct, grey {len(css(section, ".pin[data-level=none]"))}')
        print('quad 0:', quad_layout(d, 0))
        print('grid 1 misplaced:', grid_misplaced(d, 1))

        e = pin(d, fixed_pos, fixed_port)
        levels = get_json(url + 'api/levels')['levels']
        print(f'level {fixed}: page {level(e)}, api/levels {levels[fixed_pos][fixed_port]}')
        print(f'title {fixed}:', e.get_attribute('title').replace('\n', ' / '))
        print(f'changed {fixed}:', has(e, 'changed'))
        print('fault marks:', ' '.join(names(css(d, '.pin.fault'), 'pin')) or 'none')

        # The pin on the square wave: its level changes, then changes back.
        w = pin(d, wave_pos, wave_port)
        seen = [level(w)]
        for _ in range(2):
            wait(d, lambda: level(w) != seen[-1], f'{wave} to change')
            seen.append(level(w))
        print(f'wave {wave}: {len(seen) - 1} changes through', ' and '.join(sorted(set(seen))),
              '(ringed)' if has(w, 'changed') else '(no ring)')

        # Its panel: a step line over the last 30 s, at least two edges; no drive buttons without --drive.
        w.click()
        wait(d, lambda: d.execute_script(
            "const p = document.querySelector('#panel-wave path.step');"
            "return p && (p.getAttribute('d').match(/V/g) || []).length >= 2"), 'two edges in the waveform')
        print('panel:', d.find_element(By.ID, 'panel-title').text, '| drive buttons shown:',
              d.find_element(By.ID, 'panel-drive').is_displayed(), '| release all shown:',
              d.find_element(By.ID, 'release-all').is_displayed())

        # Search: a substring of port names, any case, on every drawing.
        box = d.find_element(By.ID, 'search')
        box.send_keys('IO(1')
        print('search IO(1:', d.find_element(By.ID, 'search-count').text, '|', ' '.join(sorted(names(css(d, '.pin.match')))))
        print('console errors:', console_errors(d))
    finally:
        d.quit()


def drive(url, profile, port, refused):
    a = browser(profile)
    try:
        open_page(a, url)
        first = a.current_window_handle
        a.switch_to.new_window('tab')
        open_page(a, url)
        second = a.current_window_handle
        a.switch_to.window(first)

        def click_drive(position, port, button):
            pin(a, position, port).click()
            a.find_element(By.ID, button).click()

        def in_tab(handle, condition, what):
            a.switch_to.window(handle)
            return wait(a, condition, what)

        p = lambda: pin(a, 0, port)
        click_drive(0, port, 'drive-0')
        in_tab(first, lambda: has(p(), 'driven') and level(p()) == '0', f'{port} driven and read at 0')
        print(f'drive 0 {port}: level {level(p())}, driven {has(p(), "driven")}, ringed {has(p(), "changed")}')
        wait(a, lambda: not has(p(), 'changed'), 'the ring to fade')
        print(f'{port} a while later: ringed {has(p(), "changed")}, level {level(p())}')
        in_tab(second, lambda: has(p(), 'driven') and level(p()) == '0', f'{port} driven in the other tab')
        print(f'other tab: level {level(p())}, driven {has(p(), "driven")}')

        # A refused drive: the server's reason in the status line, nothing else driven.
        a.switch_to.window(first)
        click_drive(0, refused, 'drive-1')
        status = a.find_element(By.ID, 'status')
        wait(a, lambda: has(status, 'error'), 'the refusal in the status line')
        print(f'drive 1 {refused}:', status.text, '| error:', has(status, 'error'))
        print('driven pins:', ' '.join(names(css(a, '.pin.driven'))))

        # Release all: Test-Logic-Reset, the pin reads the board's pull-up again, in both tabs.
        a.find_element(By.ID, 'release-all').click()
        for handle, name in ((first, 'this tab'), (second, 'other tab')):
            in_tab(handle, lambda: not css(a, '.pin.driven') and level(p()) == '1', f'released in {name}')
            print(f'released, {name}: driven {len(css(a, ".pin.driven"))}, {port} level {level(p())}')

        # Drive 1, left driven for the shell to stop the server on.
        a.switch_to.window(first)
        click_drive(0, port, 'drive-1')
        wait(a, lambda: 'driven 1' in p().get_attribute('title'), f'{port} driven at 1')
        print(f'drive 1 {port}:', a.find_element(By.ID, 'status').text, '|', p().get_attribute('title').replace('\n', ' / '))
        print('console errors:', [m for m in console_errors(a) if 'api/drive' not in m])
    finally:
        a.quit()


def status_of(url, method='GET'):
    try:
        with urllib.request.urlopen(urllib.request.Request(url, method=method), timeout=GIVE_UP) as r:
            return r.status
    except urllib.error.HTTPError as e:
        return e.code


def forbidden(url):
    u = urllib.parse.urlsplit(url)
    root = f'{u.scheme}://{u.netloc}'
    token = u.path.strip('/')
    wrong = token[:-1] + ('0' if token[-1] != '0' else '1')
    for name, path in (('/', '/'), ('/api/chain', '/api/chain'), ('/api/events', '/api/events'),
                       ('/WRONG/api/chain', f'/{wrong}/api/chain'), ('/TOKEN-IN-CAPITALS/api/chain', f'/{token.upper()}/api/chain'),
                       ('/TOKEN', f'/{token}'), ('/x/TOKEN/api/chain', f'/x/{token}/api/chain')):
        print(f'GET {name}: {status_of(root + path)}')
    print('POST /api/release:', status_of(root + '/api/release', 'POST'))


# One exchange on a raw socket: what the server answered (its status line) or how it ended.
def raw(port, data, reply=True):
    try:
        with socket.create_connection(('127.0.0.1', port), timeout=GIVE_UP) as s:
            s.sendall(data)
            s.shutdown(socket.SHUT_WR)
            answer = b''
            while reply and b'\r\n' not in answer:
                chunk = s.recv(4096)
                if not chunk:
                    break
                answer += chunk
            return answer.split(b'\r\n', 1)[0].decode('latin-1') or 'closed'
    except (ConnectionResetError, BrokenPipeError):
        return 'reset'


def stress(url):
    u = urllib.parse.urlsplit(url)
    port, prefix = u.port, u.path
    chain = get_json(url + 'api/chain')

    # 100 event streams at once, each reading its first event, all open together.
    lock, barrier = threading.Lock(), threading.Barrier(100, timeout=GIVE_UP * 4)

    def client(_):
        first = ''
        try:
            with urllib.request.urlopen(url + 'api/events', timeout=GIVE_UP * 4) as r:
                while True:
                    line = r.readline().decode()
                    if line in ('', '\n'):
                        break
                    first += line
                barrier.wait()
        except Exception as e:
            first = f'failed: {e}'
        return first.split('\n', 1)[0]

    with ThreadPoolExecutor(100) as pool:
        firsts = list(pool.map(client, range(100)))
    print('100 event streams, first lines:', sorted(set(firsts)), len(firsts))

    # Malformed requests, 1000 in all, on raw sockets.
    def post(path, body, extra=b''):
        return (f'POST {prefix}{path} HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n'
                f'Content-Length: {len(body)}\r\n').encode() + extra + b'\r\n' + body
    bodies = [b'', b'{', b'[]', b'null', b'"x"', b'{"position":0}', b'{"position":0,"port":"io(5)"}',
              b'{"position":"0","port":"io(5)","level":"1"}', b'{"position":0,"port":"io(5)","level":1}',
              b'{"position":0,"port":"io(5)","level":"2"}', b'{"position":0,"port":"nosuch","level":"1"}',
              b'{"position":9,"port":"io(5)","level":"1"}', b'{"position":-1,"port":"io(5)","level":"1"}',
              b'{"position":4294967296,"port":"io(5)","level":"1"}', b'{"position":0.5,"port":"io(5)","level":"1"}',
              b'{"position":0,"port":"in(0)","level":"1"}', b'{"position":0,"port":"vcc(1)","level":"0"}',
              b'{"position":0,"port":"IO(5)x","level":"0"}', b'{"position":0,"port":"","level":"0"}',
              b'{"position":0,"port":"io(5)","level":"1"', b'\xff\xfe{}', b'{"position":0,"port":null,"level":"1"}',
              b'{' * 10000, b'[' * 100000]
    requests = [post('api/drive', b) for b in bodies]
    def request(method, path, headers='Host: x\r\n'):
        return f'{method} {prefix}{path} HTTP/1.1\r\n{headers}\r\n'.encode()
    requests += [b'\x00\x01\x02\xff garbage\r\n\r\n', b'\r\n\r\n', b'GET\r\n\r\n', b'GET /\r\n\r\n',
                 request('BREW', 'api/chain'), request('DELETE', 'api/chain'),
                 request('PUT', 'api/drive', 'Host: x\r\nContent-Length: 2\r\n') + b'{}']
    # api/devices/2 has no boundary register.
    requests += [request('GET', path) for path in ('a' * 100000, 'api/devices/99', 'api/devices/-1', 'api/devices/2',
                                                   'api/devices/0x1', 'api/%00', '../../etc/passwd')]
    requests += [
        f'GET {prefix}api/chain HTTP/9.9\r\n\r\n'.encode(),
        post('api/drive', b'{"position":0,"port":"io(5)","level":"0"}', b'Content-Length: 5\r\n'),
        post('api/drive', b'', b'Transfer-Encoding: chunked\r\n') + b'zz\r\n{}\r\n0\r\n\r\n',
        request('POST', 'api/drive', 'Content-Length: -1\r\n'),
        request('POST', 'api/drive', 'Content-Length: 99999999999999999999\r\n'),
        request('POST', 'api/drive', 'Content-Length: 100\r\n') + b'{"posi',  # the body cut short
    ]
    # Reads that are well formed but large: whether the server answers them
    # or drops the connection, it must stay up; they are not counted as refused.
    large = [request('GET', 'api/chain', f'Host: x\r\nX-Big: {"a" * 200000}\r\n'),
             request('GET', 'api/chain', ''.join(f'X-{i}: y\r\n' for i in range(5000)))]
    requests += large
    answers, accepted = {}, set()
    todo = [requests[i % len(requests)] for i in range(1000)]

    def worker(part):
        for data in part:
            a = raw(port, data)
            with lock:
                answers[a] = answers.get(a, 0) + 1
                if (a.startswith('HTTP/1.1 2') or a.startswith('HTTP/1.0 2')) and data not in large:
                    accepted.add(data[:80])
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(worker, (todo[i::8] for i in range(8))))
    codes = sorted(set(a.split(' ')[1] if a.startswith('HTTP/1.') else a for a in answers))
    print('1000 malformed requests:', sum(answers.values()), 'sent;',
          'none accepted' if not accepted else f'ACCEPTED: {sorted(accepted)}',
          '| no 5xx' if not any(c.startswith('5') for c in codes) else f'| codes {codes}')
    print('api/chain after:', 'the same' if get_json(url + 'api/chain') == chain else 'DIFFERENT')
    print('driving after:', json.dumps(get_json(url + 'api/levels')['driving'], sort_keys=True))


def screenshot(url, profile, path):
    d = browser(profile)
    try:
        # The page's own area at 1280x800, whatever the window's frame takes.
        d.execute_cdp_cmd('Emulation.setDeviceMetricsOverride',
                          {'width': 1280, 'height': 800, 'deviceScaleFactor': 1, 'mobile': False})
        open_page(d, url)
        time.sleep(3)  # some history for the waveform
        w = d.find_elements(By.CSS_SELECTOR, '.pin.changed')
        if w:
            w[0].click()
        time.sleep(2)
        d.save_screenshot(path)
    finally:
        d.quit()


if __name__ == '__main__':
    command, args = sys.argv[1], sys.argv[2:]
    {'page': page, 'drive': drive, 'forbidden': forbidden, 'stress': stress, 'screenshot': screenshot}[command](*args)
