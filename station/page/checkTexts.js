// What a failing check means to those who watch, and where to look, by its number in ETSI TR 101 290.

export const kCheckTexts = {
  '1.1': [
    'Receivers lose the stream: picture and sound stop until they find it again.',
    'The sender, and whatever rewrites the stream after it.'
  ],
  '1.2': [
    'Packets are damaged or out of place; each may cost a piece of picture or sound.',
    'The device that makes the packets; a network seldom damages them.'
  ],
  '1.3.a': [
    'Receivers find no programs: tuning in fails, and some drop a channel that they show.',
    'The multiplexer\'s PAT; if packets are lost as well, the loss first.'
  ],
  '1.4': [
    'Packets are missing, repeated or out of order: blocks in the picture, clicks in the sound.',
    'Loss and network, below: it tells the network from what comes before it.'
  ],
  '1.5.a': [
    'Receivers do not learn which streams make up the program: it cannot be tuned to.',
    'The multiplexer\'s PMT; if packets are lost as well, the loss first.'
  ],
  '1.6': [
    'A picture or a sound that is announced does not come: black, frozen or silent.',
    'The encoder of this PID and its input; a PMT that still lists a stream that is gone.'
  ],
  '2.1': [
    'An earlier receiver marked these packets as damaged: blocks and clicks.',
    'Reception before this network: dish, antenna, cable, demodulator.'
  ],
  '2.2': [
    'Damaged tables are ignored: names, guide or streams stay as they were.',
    'The loss, if there is some; else the device that makes the table.'
  ],
  '2.3.a': [
    'Receivers\' clocks run free for too long: stutter, and sound that is not in step.',
    'The multiplexer\'s interval of program clock references (PCR).'
  ],
  '2.3.b': [
    'The program clock jumped unannounced: a freeze, or sound out of step.',
    'Splices, looped playout, a restarted encoder, or packets lost at length.'
  ],
  '2.4': [
    'The program clock is stamped imprecisely, whatever the network did: old receivers and modulators lose it.',
    'The last device that multiplexes and stamps the clock anew.'
  ],
  '2.5': [
    'Receivers are not told in time when to show pictures or play sound: stutter, lip sync off.',
    'The encoder of this PID.'
  ],
  '2.6': [
    'The program is scrambled and nothing says for whom: even subscribers see nothing.',
    'The scrambler and the conditional access system\'s CAT.'
  ],
  '3.1.a': [
    'Receivers miss changes of the network: channel numbers and frequencies may be old.',
    'The generator of service information, its NIT.'
  ],
  '3.1.b': [
    'Receivers learn late of other networks; what is on here is not touched.',
    'The generator of service information, its NIT of other networks.'
  ],
  '3.2': [
    'Tables come too seldom or too often: names, numbers and guide show up late.',
    'The intervals of the generator of service information.'
  ],
  '3.4.a': [
    'Packets that no table announces: no receiver uses them, and they take bit rate.',
    'A stream that a multiplexer lets through, or one that is missing in its PMT.'
  ],
  '3.5.a': [
    'Channel lists may show a number, or an old name, in place of the service\'s name.',
    'The generator of service information, its SDT.'
  ],
  '3.5.b': [
    'Names of services of other streams come late in channel lists.',
    'The generator of service information, its SDT of other streams.'
  ],
  '3.6.a': [
    'The guide lacks what runs now and next.',
    'The generator of service information, its EIT and the schedule behind it.'
  ],
  '3.6.b': [
    'The guide lacks what runs on services of other streams.',
    'The generator of service information, its EIT of other streams.'
  ],
  '3.6.c': [
    'The guide has one of now and next without the other.',
    'The generator of service information, its EIT present/following.'
  ],
  '3.7': [
    'Recorders that go by the running status may start or stop at the wrong time.',
    'The generator of service information, its RST.'
  ],
  '3.8': [
    'Receivers\' clocks, and recordings by the clock, may be wrong.',
    'The generator of service information, its TDT and its time server.'
  ],
};

// Why a check cannot be judged on a stream, where that can be.
export const kInapplicable = {
  '2.4': 'Judged at a constant bit rate alone.',
};
