/* What browsers tell of keyboards, played to the page's own keyboard and from there into a session. */
import test from 'node:test';
import { Keyboard } from '../../hosts/web/client/keyboard.js';
import { Client, eventually, observe, runOn, startServer, startWeb } from './support.js';

/* "+CODE/KEY!FLAGS" is a keydown and "-CODE/KEY!FLAGS" a keyup with Shift, Control, Alt, Meta and AltGraph by their first
 * letters (G for AltGraph); "~+" and "~-" are those during a composition; "=TEXT" is text input. */
const ALTGR = '+AltRight/AltGraph!G', ALTGR_UP = '-AltRight/AltGraph';
const PAIR = '+ControlLeft/Control!C +AltRight/AltGraph!G', PAIR_UP = '-ControlLeft/Control!G -AltRight/AltGraph';
const OLD_PAIR = '+ControlLeft/Control!C +AltRight/Alt!CA', OLD_PAIR_UP = '-ControlLeft/Control!A -AltRight/Alt';
const BOTH = '+ControlLeft/Control!C +AltLeft/Alt!CA', BOTH_UP = '-AltLeft/Alt!C -ControlLeft/Control';
const OPTION = '+AltLeft/Alt!A', OPTION_UP = '-AltLeft/Alt';
const SHIFT = '+ShiftLeft/Shift!S', SHIFT_UP = '-ShiftLeft/Shift';

const SEQUENCES = [
  ['linux', 'de', '@€{x', `${ALTGR} +KeyQ/@!G -KeyQ/@!G +KeyE/€!G -KeyE/€!G +Digit7/{!G ${ALTGR_UP} -Digit7/7 +KeyX/x -KeyX/x`],
  ['linux', 'de', 'Äêß?', `${SHIFT} +Quote/Ä!S -Quote/Ä!S ${SHIFT_UP} +Backquote/Dead -Backquote/Dead +KeyE/ê =ê -KeyE/ê`
    + ` +Minus/ß -Minus/ß ${SHIFT} +Minus/?!S -Minus/?!S ${SHIFT_UP}`],
  ['linux', 'fr', 'é#Êç', `+Digit2/é -Digit2/é ${ALTGR} +Digit3/#!G -Digit3/#!G ${ALTGR_UP} +BracketLeft/Dead`
    + ` -BracketLeft/Dead ${SHIFT} +KeyE/Ê!S =Ê -KeyE/Ê!S ${SHIFT_UP} +Digit9/ç -Digit9/ç`],
  ['linux', 'es', 'ñ@¿á', `+Semicolon/ñ -Semicolon/ñ ${ALTGR} +Digit2/@!G -Digit2/@!G ${ALTGR_UP} ${SHIFT}`
    + ` +Equal/¿!S -Equal/¿!S ${SHIFT_UP} +Quote/Dead -Quote/Dead +KeyA/á =á -KeyA/á`],
  ['linux', 'it', 'è@{', `+BracketLeft/è -BracketLeft/è ${ALTGR} +Semicolon/@!G -Semicolon/@!G +ShiftRight/Shift!SG`
    + ` +BracketLeft/{!SG -BracketLeft/{!SG -ShiftRight/Shift!G ${ALTGR_UP}`],
  ['windows', 'de', '@\\a', `${PAIR} +KeyQ/@!G -KeyQ/@!G ${PAIR_UP} ${PAIR} +Minus/\\!G ${PAIR_UP} -Minus/ß +KeyA/a -KeyA/a`],
  ['windows', 'de', '@€', `${OLD_PAIR} +KeyQ/@!CA -KeyQ/@!CA ${OLD_PAIR_UP} ${BOTH} +KeyE/€!G -KeyE/€!G ${BOTH_UP}`],
  ['windows', 'fr', '{ê|', `${PAIR} +Digit4/{!G -Digit4/{!G ${PAIR_UP} +BracketLeft/Dead -BracketLeft/Dead +KeyE/ê =ê`
    + ` -KeyE/ê ${BOTH} +Digit6/|!G -Digit6/|!G ${BOTH_UP}`],
  ['windows', 'es', '[ñü', `${PAIR} +BracketLeft/[!G -BracketLeft/[!G ${PAIR_UP} +Semicolon/ñ -Semicolon/ñ ${SHIFT}`
    + ` +Quote/Dead!S -Quote/Dead!S ${SHIFT_UP} +KeyU/ü =ü -KeyU/ü`],
  ['windows', 'it', '#à}', `${PAIR} +Quote/#!G -Quote/#!G ${PAIR_UP} +Quote/à -Quote/à ${PAIR} ${SHIFT}`
    + ` +BracketRight/}!SG -BracketRight/}!SG ${SHIFT_UP} ${PAIR_UP}`],
  ['mac', 'de', '@\\[', `${OPTION} +KeyL/@!A -KeyL/@!A ${SHIFT} +Digit7/\\!AS -Digit7/\\!AS ${SHIFT_UP} +Digit5/[!A`
    + ` ${OPTION_UP} -Digit5/5`],
  ['mac', 'fr', 'œêÉ', `${OPTION} +KeyO/œ!A -KeyO/œ!A ${OPTION_UP} +BracketLeft/Dead ~-BracketLeft/Dead ~+KeyE/ê =ê -KeyE/e`
    + ` +CapsLock/CapsLock +Digit2/É -Digit2/É -CapsLock/CapsLock`],
  ['mac', 'es', '#áñ', `${OPTION} +Digit3/#!A -Digit3/#!A ${OPTION_UP} +Quote/Dead ~-Quote/Dead ~+KeyA/á =á -KeyA/a`
    + ' +Semicolon/ñ -Semicolon/ñ'],
  ['mac', 'it', '{@ò', `+AltRight/Alt!A ${SHIFT} +BracketLeft/{!AS -BracketLeft/{!AS ${SHIFT_UP} +Semicolon/@!A`
    + ' -Semicolon/@!A -AltRight/Alt +Semicolon/ò -Semicolon/ò'],
  ['linux', 'us', '^a^cq', '+ControlLeft/Control!C +KeyA/a!C -KeyA/a!C +KeyC/c!C -KeyC/c!C -ControlLeft/Control +KeyQ/q -KeyQ/q'],
  ['mac', 'us', 'cq', '+MetaLeft/Meta!M +KeyC/c!M -MetaLeft/Meta +KeyQ/q -KeyQ/q'],
];

const FLAGS = { S: 'Shift', C: 'Control', A: 'Alt', M: 'Meta', G: 'AltGraph' };
const LOCATIONS = { Left: 1, Right: 2 };

function play(keyboard, token) {
  if (token.startsWith('='))
    return keyboard.text(token.slice(1));
  const [, composing, direction, code, key, flags = ''] = /^(~?)([+-])(\w+)\/(.+?)(?:!([SCAMG]+))?$/.exec(token);
  const held = [...flags].map(flag => FLAGS[flag]);
  const event = {
    code, key, isComposing: composing === '~', getModifierState: name => held.includes(name),
    location: key in { Shift: 0, Control: 0, Alt: 0, AltGraph: 0, Meta: 0 } ? LOCATIONS[/Left|Right/.exec(code)[0]] : 0,
    ctrlKey: held.includes('Control'), altKey: held.includes('Alt'), metaKey: held.includes('Meta'),
  };
  return (direction === '+' ? keyboard.down(event) : keyboard.up(event)) ?? [];
}

for (const layout of ['us', 'de', 'fr', 'es', 'it'])
  test(`keyboards of clients in a session with the layout ${layout}`, async t => {
    const display = await startServer(t, 'xvfb');
    await runOn(display, 'setxkbmap', '-rules', 'evdev', layout);
    const observer = observe(t, display);
    const client = await Client.connect(t, await startWeb(t, display));
    await client.controls();
    for (const [platform, from, text, events] of SEQUENCES) {
      const keyboard = new Keyboard({ mac: platform === 'mac' }), name = `${platform} ${from}: `;
      events.split(' ').flatMap(token => play(keyboard, token)).forEach(message => client.send(message));
      await eventually(async () => name + await observer.ask('text'), name + text);
      await observer.idle();
      await observer.ask('forget');
    }
  });
