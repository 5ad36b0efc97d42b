// A stream in words: codec, size, channels and the like.
import {isKnown, quantity, visible} from './format.js';

const kKinds = {
  video: 'video',
  audio: 'audio',
  subtitle: 'subtitles',
  teletext: 'teletext',
  cue: 'cues',
  data: 'data'
};
const kChannels = new Map([[1, 'mono'], [2, 'stereo'], [6, '5.1'], [8, '7.1']]);

// "1920 × 1080i25"; '' where nothing is known.
export function sizeText(video) {
  if (!isKnown(video?.width) || !isKnown(video.height)) return '';
  const scan = isKnown(video.interlaced) ? (video.interlaced ? 'i' : 'p') : '';
  const rate = isKnown(video.frameRate) ? `${scan || ' at '}${Number(video.frameRate.toFixed(2))}` : scan;
  return `${video.width} × ${video.height}${rate}`;
}

// Levels as their standards write them: headers have ten times as much for H.264, thirty times for H.265.
const kFactors = new Map([['H.264', 10], ['H.265', 30]]);
const kMpeg2Levels = new Map([[4, 'High'], [6, 'High 1440'], [8, 'Main'], [10, 'Low']]);

function profileText({profile, level}, codec) {
  if (!profile) return '';
  if (!isKnown(level)) return visible(profile);
  const factor = kFactors.get(codec);
  return `${visible(profile)}@${factor ? (level / factor).toFixed(1) : kMpeg2Levels.get(level) ?? level}`;
}

export function videoText(video, codec) {
  return [
    sizeText(video), profileText(video, codec), video.chroma && visible(video.chroma),
    isKnown(video.bitDepth) && `${video.bitDepth} bit`, video.transfer && visible(video.transfer)
  ].filter(Boolean)
      .join(', ');
}

export function audioText({sampleRate, channels, bitrate, profile}) {
  return [
    profile && visible(profile), isKnown(sampleRate) && `${sampleRate / 1000} kHz`,
    isKnown(channels) && (kChannels.get(channels) ?? `${channels} channels`),
    isKnown(bitrate) && quantity(bitrate, 'bit/s')
  ].filter(Boolean)
      .join(', ');
}

// {what, details} of a stream of the report.
export function streamText({codec, kind, streamType, video, audio, ca}) {
  const named = codec ? visible(codec) : '';
  const what = named ?
      (kKinds[kind] === 'video' || kKinds[kind] === 'audio' ? `${kKinds[kind]}, ${named}` : named) :
      `${kKinds[kind] ?? visible(kind)}, stream type 0x${streamType.toString(16).padStart(2, '0')}`;
  const details = video ? videoText(video, codec) : audio ? audioText(audio) : '';
  return {what, details: [details, ca.length ? 'scrambling announced' : ''].filter(Boolean).join(', ')};
}

// "deu, eng" of the report's "deu,eng".
export function languagesText(language) {
  return language ? visible(language).split(',').join(', ') : '';
}
