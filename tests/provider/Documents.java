import it.quarvel.pkcs11.security.QuarvelProvider;
import java.io.ByteArrayInputStream;
import java.io.File;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.PrivateKey;
import java.security.Security;
import java.security.cert.X509Certificate;
import java.util.Calendar;
import java.util.List;
import org.apache.pdfbox.pdmodel.PDDocument;
import org.apache.pdfbox.pdmodel.PDPage;
import org.apache.pdfbox.pdmodel.interactive.digitalsignature.PDSignature;
import org.apache.pdfbox.pdmodel.interactive.digitalsignature.SignatureInterface;
import org.bouncycastle.cert.jcajce.JcaCertStore;
import org.bouncycastle.cms.CMSEnvelopedData;
import org.bouncycastle.cms.CMSProcessableByteArray;
import org.bouncycastle.cms.CMSSignedDataGenerator;
import org.bouncycastle.cms.RecipientInformation;
import org.bouncycastle.cms.jcajce.JcaSignerInfoGeneratorBuilder;
import org.bouncycastle.cms.jcajce.JceKeyTransEnvelopedRecipient;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import org.bouncycastle.operator.jcajce.JcaDigestCalculatorProviderBuilder;

/**
 * Signs CMS and PDF documents, and decrypts a CMS one, as programs do that know nothing of tokens:
 * Documents URI PIN FOLDER. OpenSSL judges what it leaves in the folder.
 */
class Documents {
  public static void main(String[] args) throws Exception {
    Security.insertProviderAt(new QuarvelProvider().configure(args[0]), 1);
    KeyStore store = KeyStore.getInstance("PKCS11");
    store.load(null, args[1].toCharArray());
    Path folder = Path.of(args[2]);
    byte[] text = Files.readAllBytes(folder.resolve("text"));
    for (String[] each : new String[][] {{"rsa", "SHA256withRSA"}, {"rsa", "SHA256withRSAandMGF1"},
        {"ec", "SHA384withECDSA"}}) {
      Files.write(folder.resolve(each[1] + ".cms"), sign(store, each[0], each[1], text));
    }
    CMSEnvelopedData encrypted =
        new CMSEnvelopedData(Files.readAllBytes(folder.resolve("encrypted.cms")));
    RecipientInformation recipient = encrypted.getRecipientInfos().iterator().next();
    Files.write(folder.resolve("decrypted"), recipient.getContent(
        new JceKeyTransEnvelopedRecipient((PrivateKey) store.getKey("rsa", null))));
    signPdf(store, folder);
  }

  private static byte[] sign(KeyStore store, String alias, String algorithm, byte[] content)
      throws Exception {
    CMSSignedDataGenerator generator = new CMSSignedDataGenerator();
    generator.addSignerInfoGenerator(
        new JcaSignerInfoGeneratorBuilder(new JcaDigestCalculatorProviderBuilder().build()).build(
            new JcaContentSignerBuilder(algorithm).build((PrivateKey) store.getKey(alias, null)),
            (X509Certificate) store.getCertificate(alias)));
    generator.addCertificates(new JcaCertStore(List.of(store.getCertificateChain(alias))));
    return generator.generate(new CMSProcessableByteArray(content), false).getEncoded();
  }

  private static void signPdf(KeyStore store, Path folder) throws Exception {
    File file = folder.resolve("page.pdf").toFile();
    try (PDDocument page = new PDDocument()) {
      page.addPage(new PDPage());
      page.save(file);
    }
    SignatureInterface signer = (InputStream content) -> {
      try {
        return sign(store, "rsa", "SHA256withRSA", content.readAllBytes());
      } catch (Exception e) {
        throw new IOException(e);
      }
    };
    Path signed = folder.resolve("signed.pdf");
    try (PDDocument page = PDDocument.load(file);
        FileOutputStream out = new FileOutputStream(signed.toFile())) {
      PDSignature signature = new PDSignature();
      signature.setFilter(PDSignature.FILTER_ADOBE_PPKLITE);
      signature.setSubFilter(PDSignature.SUBFILTER_ADBE_PKCS7_DETACHED);
      signature.setSignDate(Calendar.getInstance());
      page.addSignature(signature, signer);
      page.saveIncremental(out);
    }
    byte[] bytes = Files.readAllBytes(signed);
    try (PDDocument page = PDDocument.load(bytes)) {
      PDSignature signature = page.getLastSignatureDictionary();
      Files.write(folder.resolve("pdf.cms"), signature.getContents(bytes));
      Files.write(folder.resolve("pdf"),
          signature.getSignedContent(new ByteArrayInputStream(bytes)));
    }
  }
}
