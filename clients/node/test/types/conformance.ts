// Holds the sources to the published types: compiles only while each class has the documented members.
import type * as published from '../../index.js';
import type * as publishedRecording from '../../recording.js';
import type * as publishedResampler from '../../resampler.js';
import {PalaverError, PalaverHelper, Resampler, Session, findHelper} from '../../src/index.js';
import {decodeWav, paced, readRecording} from '../../src/recording.js';

type Members<Class extends abstract new (...args: never) => unknown> = Pick<InstanceType<Class>, keyof InstanceType<Class>>;
type Instance<Class> = Class extends {prototype: infer Type} ? Pick<Type, keyof Type> : never;

export const helper = (own: PalaverHelper): Instance<typeof published.PalaverHelper> => own;
export const session = (own: Session): Instance<typeof published.Session> => own;
export const error = (own: PalaverError): Omit<Members<typeof published.PalaverError>, 'name' | 'code' | 'cause'> => own;
export const resampler = (own: Resampler): Members<typeof publishedResampler.Resampler> => own;
export const statics: Pick<typeof published.PalaverHelper, 'health' | 'authorize' | 'installModel'> = PalaverHelper;
export const find: typeof published.findHelper = findHelper;
export const wav: typeof publishedRecording.decodeWav = decodeWav;
export const read: typeof publishedRecording.readRecording = readRecording;
export const pace: typeof publishedRecording.paced = paced;
