// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

import static it.quarvel.pkcs11.PKCS11Constants.*;

import java.security.spec.AlgorithmParameterSpec;
import java.security.spec.MGF1ParameterSpec;
import java.security.spec.PSSParameterSpec;
import java.util.List;
import java.util.Locale;
import javax.crypto.spec.OAEPParameterSpec;
import javax.crypto.spec.PSource.PSpecified;

/**
 * Makes numbers that stand for an RSA mechanism together with its parameter, since the native
 * methods pass no parameters.
 *
 * <pre>{@code
 * int oaep = PKCS11Mechanisms.oaep(new OAEPParameterSpec(
 *     "SHA-256", "MGF1", MGF1ParameterSpec.SHA256, PSource.PSpecified.DEFAULT));
 * byte[] key = session.decrypt(oaep, privateKey, wrapped);
 * }</pre>
 *
 * <p>Such a number serves as a {@code CKM_} value in a module that {@link PKCS11Module#open}
 * opened: the adapter turns it into the mechanism and its parameter. {@code C_GetMechanismInfo}
 * answers for that mechanism; {@code C_GetMechanismList} lists the module's own mechanisms only.
 * The numbers lie in the vendor-defined range, and a module with a mechanism of its own under one
 * of them keeps it. A module that does not take the parameter answers with an error of its own.
 *
 * <p>The hashes are SHA-1, SHA-224, SHA-256, SHA-384 and SHA-512; the mask generation is MGF1 with
 * any of them.
 */
public final class PKCS11Mechanisms {
  /** The hashes, in the order of the numbers that the adapter gives them. */
  private static final List<String> HASHES =
      List.of("SHA-1", "SHA-224", "SHA-256", "SHA-384", "SHA-512");

  private static final int MOST_SALT = 1023;

  private PKCS11Mechanisms() {}

  /**
   * Makes the number of {@code CKM_RSA_PKCS_OAEP} with its parameters.
   *
   * @param parameters hash and mask generation; without a label
   * @return the mechanism, for {@code encrypt}, {@code decrypt}, {@code wrapKey}, {@code unwrapKey}
   * @throws IllegalArgumentException when no number stands for these parameters
   */
  public static int oaep(OAEPParameterSpec parameters) {
    boolean plain = parameters.getPSource() instanceof PSpecified label && label.getValue().length == 0;
    return number(CKM_ADAPTER_OAEP, parameters.getDigestAlgorithm(), parameters.getMGFAlgorithm(),
        parameters.getMGFParameters(), plain ? 0 : -1);
  }

  /**
   * Makes the number of {@code CKM_RSA_PKCS_PSS} with its parameters, which signs a digest that the
   * caller has made.
   *
   * @param parameters the hash of the digest, mask generation, a salt of up to 1,023 bytes
   * @return the mechanism, for {@code sign}
   * @throws IllegalArgumentException when no number stands for these parameters
   */
  public static int pssOfDigest(PSSParameterSpec parameters) {
    return pss(CKM_ADAPTER_PSS, parameters);
  }

  /**
   * Makes the number of {@code CKM_SHA256_RSA_PKCS_PSS}, or its like of another hash, with its
   * parameters, which hashes and signs.
   *
   * @param parameters the hash, mask generation, a salt of up to 1,023 bytes
   * @return the mechanism, for {@code sign}
   * @throws IllegalArgumentException when no number stands for these parameters
   */
  public static int pssOfData(PSSParameterSpec parameters) {
    return pss(CKM_ADAPTER_HASH_PSS, parameters);
  }

  private static int pss(int kind, PSSParameterSpec parameters) {
    boolean standard = parameters.getTrailerField() == PSSParameterSpec.TRAILER_FIELD_BC;
    return number(kind, parameters.getDigestAlgorithm(), parameters.getMGFAlgorithm(),
        parameters.getMGFParameters(), standard ? parameters.getSaltLength() : -1);
  }

  private static int number(int kind, String hash, String generation,
      AlgorithmParameterSpec generator, int salt) {
    String mask = generation.equals("MGF1") && generator instanceof MGF1ParameterSpec mgf1
        ? mgf1.getDigestAlgorithm() : "";
    if (indexOf(hash) < 0 || indexOf(mask) < 0 || salt < 0 || salt > MOST_SALT) {
      throw new IllegalArgumentException("parameters that no mechanism number stands for: " + hash
          + ", " + generation + " " + generator);
    }
    return kind | indexOf(hash) << 13 | indexOf(mask) << 10 | salt;
  }

  /** Returns the place of a hash in the list, -1 if it has none. Java writes SHA-256 and SHA256. */
  private static int indexOf(String hash) {
    return HASHES.indexOf(hash.toUpperCase(Locale.ROOT).replaceFirst("^SHA(?=\\d)", "SHA-"));
  }
}
